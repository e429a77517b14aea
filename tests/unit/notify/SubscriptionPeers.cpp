// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SubscriptionPeers.h"

#include "Sandbox.h"

#include <ostream>
#include <stdexcept>

#include <gtest/gtest.h>

namespace VornTest {

namespace {

std::string mostSignificantFirst(std::uint64_t value, int size) {
    std::string data;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
        data += static_cast<char>(value >> shift & 0xff);
    return data;
}

std::uint64_t valueOf(const std::string& data, std::size_t at, std::size_t size) {
    if (data.size() < at + size)
        throw std::out_of_range("only " + hex(data));
    std::uint64_t value = 0;
    for (std::size_t i = at; i < at + size; ++i)
        value = value << 8 | static_cast<unsigned char>(data[i]);
    return value;
}

} // namespace

std::string wireInt(std::uint32_t value) {
    return mostSignificantFirst(value, 4);
}

std::string wireNumber(std::uint64_t value) {
    return mostSignificantFirst(value, 8);
}

std::string wireText(const std::string& text) {
    return wireInt(static_cast<std::uint32_t>(text.size())) + text;
}

std::uint32_t intOf(const std::string& data, std::size_t at) {
    return static_cast<std::uint32_t>(valueOf(data, at, 4));
}

std::uint64_t numberOf(const std::string& data, std::size_t at) {
    return valueOf(data, at, 8);
}

UniqueFd connectTo(const std::string& address) {
    if (address.compare(0, 5, "pipe:") == 0)
        return unixConnect(pipePath(address.substr(5)));
    const std::size_t colon = address.rfind(':');
    return tcpConnect(address.substr(7, colon - 7), std::stoi(address.substr(colon + 1)));
}

std::string WireRequest::bytes() const {
    return wireInt(version) + wireText(callback) + wireNumber(handle << 32) + wireInt(begin) +
           wireNumber(history) + wireNumber(number) + wireText(words);
}

UniqueFd ask(const std::string& address) {
    UniqueFd client = connectTo(address);
    sendAll(client.get(), "builds\r\n" + WireRequest().bytes());
    return client;
}

std::string WireFrame::bytes() const {
    return wireInt(kind) + wireText(rest);
}

WireFrame WireFrame::event(std::uint64_t number, const std::string& content) {
    return {1, wireNumber(number) + content};
}

WireFrame WireFrame::gap(std::uint64_t history, std::uint64_t first, std::uint64_t next) {
    return {2, wireNumber(history) + wireNumber(first) + wireNumber(next)};
}

WireFrame WireFrame::sign(std::uint64_t newest) {
    return {3, wireNumber(newest)};
}

WireFrame WireFrame::last(std::uint32_t ending, const std::string& reason) {
    return {4, wireInt(ending) + wireText(reason)};
}

bool operator==(const WireFrame& left, const WireFrame& right) {
    return left.bytes() == right.bytes();
}

void PrintTo(const WireFrame& frame, std::ostream* out) {
    *out << "kind " << frame.kind << ": " << hex(frame.rest.substr(0, 64));
}

WireFrame receiveFrame(int fd) {
    const std::string head = receiveExactly(fd, 8);
    return {intOf(head), receiveExactly(fd, intOf(head, 4))};
}

std::string WirePlace::bytes() const {
    return VornTest::bytes("00 01 00 00") + wireNumber(history) + wireNumber(first) + wireNumber(newest) +
           wireInt(beat);
}

UniqueFd admitClient(int listener, const WirePlace& place) {
    UniqueFd client = acceptClient(listener);
    EXPECT_EQ(receiveExactly(client.get(), 8), "builds\r\n");
    sendAll(client.get(), "+");
    receiveExactly(client.get(), WireRequest().bytes().size());
    sendAll(client.get(), place.bytes());
    return client;
}

RawSubscriber::RawSubscriber(const std::string& address, const std::string& topic, const WireRequest& request)
    : m_socket(connectTo(address)) {
    sendAll(fd(), topic + "\r\n");
    EXPECT_EQ(receiveExactly(fd(), 1), "+");
    sendAll(fd(), request.bytes());
    EXPECT_EQ(hex(receiveExactly(fd(), 4)), "00 01 00 00");
    const std::string data = receiveExactly(fd(), 28);
    place = {numberOf(data), numberOf(data, 8), numberOf(data, 16), intOf(data, 24)};
}

WireFrame RawSubscriber::nextButSigns() const {
    WireFrame frame = next();
    while (frame.kind == 3)
        frame = next();
    return frame;
}

std::string refusalOf(int fd) {
    const std::string answer = receiveToEnd(fd);
    if (answer.size() < 8 || answer.substr(0, 4) != bytes("00 01 ff ff") ||
        intOf(answer, 4) != answer.size() - 8)
        return "no refusal: " + hex(answer);
    return answer.substr(8);
}

} // namespace VornTest
