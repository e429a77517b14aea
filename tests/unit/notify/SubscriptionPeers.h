// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SUBSCRIPTIONPEERS_H
#define VORNTEST_SUBSCRIPTIONPEERS_H

#include "Posix.h"

#include <cstdint>
#include <string>

/**
 * @file
 * Both ends of the exchange between publisher and subscriber, made of plain POSIX calls and the bytes of the
 * wire.
 */
namespace VornTest {

/** The bytes of an int, a number of 64 bits and a text. */
std::string wireInt(std::uint32_t value);
std::string wireNumber(std::uint64_t value);
std::string wireText(const std::string& text);

/** The other way round. */
std::uint32_t intOf(const std::string& data, std::size_t at = 0);
std::uint64_t numberOf(const std::string& data, std::size_t at = 0);

/** A pipe directory's name or a port, connected to. */
UniqueFd connectTo(const std::string& address);

/** The request of a client. */
struct WireRequest {
    std::uint32_t version = 1;
    std::string callback{};
    std::uint64_t handle = 0;
    std::uint32_t begin = 0;
    std::uint64_t history = 0;
    std::uint64_t number = 0;
    std::string words{};

    std::string bytes() const;
};

/** Connects to a publisher, and asks for "builds" without anything special. */
UniqueFd ask(const std::string& address);

/** A frame: its kind and its rest. */
struct WireFrame {
    std::uint32_t kind = 0;
    std::string rest;

    std::string bytes() const;

    /** An event: its number and its content. */
    std::uint64_t number() const { return numberOf(rest); }

    std::string content() const { return rest.substr(8); }

    static WireFrame event(std::uint64_t number, const std::string& content);
    static WireFrame gap(std::uint64_t history, std::uint64_t first, std::uint64_t next);
    static WireFrame sign(std::uint64_t newest);
    static WireFrame last(std::uint32_t ending, const std::string& reason);
};

bool operator==(const WireFrame& left, const WireFrame& right);
void PrintTo(const WireFrame& frame, std::ostream* out);

/** The next frame. */
WireFrame receiveFrame(int fd);

/** What a service answers when it admits. */
struct WirePlace {
    std::uint64_t history = 0;
    std::uint64_t first = 0;
    std::uint64_t newest = 0;
    std::uint32_t beat = 0;

    std::string bytes() const;
};

/** A service's next client, which asks for "builds", admitted. */
UniqueFd admitClient(int listener, const WirePlace& place);

/** A client that subscribes by hand. */
class RawSubscriber {
public:
    RawSubscriber() = default;

    /** Connects and subscribes; a test failure unless it is admitted. */
    RawSubscriber(const std::string& address, const std::string& topic, const WireRequest& request = {});

    int fd() const { return m_socket.get(); }

    UniqueFd& socket() { return m_socket; }

    WirePlace place;

    WireFrame next() const { return receiveFrame(m_socket.get()); }

    /** The next frame that is no sign of life. */
    WireFrame nextButSigns() const;

private:
    UniqueFd m_socket;
};

/** What is to be read at the end of a refused subscription: the reason. */
std::string refusalOf(int fd);

} // namespace VornTest

#endif
