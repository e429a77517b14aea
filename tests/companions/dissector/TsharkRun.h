// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_TSHARKRUN_H
#define VORNTEST_TSHARKRUN_H

#include "LeakCheckedTest.h"
#include "PacketCapture.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/**
 * @file
 * Shows a capture by tshark with the dissector.
 */
namespace VornTest {

using Lines = std::vector<std::string>;

/** A test that captures in its own network and has the capture dissected. */
class VornnetDissector : public LeakCheckedTest {
protected:
    void SetUp() override;
    void TearDown() override;

    /**
     * What tshark shows of the packets that the dissector has taken: the Info column, one line each.
     *
     * An error of the dissector's own is a failure. @p options are tshark's.
     */
    Lines shown(const Lines& options = {});

    /** As shown(), and that it is the same when tshark goes through the capture twice. */
    Lines shownBothWays(Lines options = {});

    /** As shown(), for all packets that are no mere TCP, with their protocol: "HTTP GET / HTTP/1.1". */
    Lines shownOfAll(const Lines& options = {});

    /** The remarks (expert infos) of the dissector, in order. */
    Lines remarks(const Lines& options = {});

    /** The values of the fields, of each packet that has the first of them, separated by a bar. */
    Lines fields(const Lines& names, const Lines& options = {});

    /** Runs tshark on what has been captured. */
    std::string tshark(const Lines& options);

    /** What `tshark -G` has to say. */
    std::string report(const std::string& kind);

    /** A connection in which each side sends in turn what it has to say: client, server, client... */
    void talk(const Lines& says, int port = 5023);

    /** The same, but each byte in a segment of its own, and so received before the next one is sent. */
    void talkSlowly(const Lines& says, int port = 5023);

    /** Sends datagrams, one after the other. */
    static void sendDatagrams(const Lines& datagrams, int port = 5023);

    PacketCapture& capture() { return *m_capture; }

private:
    using Sender = std::function<void(int from, int to, const std::string& text)>;

    void converse(const Lines& says, int port, const Sender& send);
    Lines table(const Lines& options, const Lines& columns);
    std::string run(const Lines& options);

    std::unique_ptr<PacketCapture> m_capture;
    std::string m_directory;
    int m_ends = 0;
};

/**
 * Lets @p send call the callback 7 of a sink of the library, whose address it is given, and waits until the
 * callback was called.
 */
void callSink(const char* type, const std::function<void(const std::string& address)>& send);

/** Options that set preferences: {"content:int"} gives {"-o", "vornnet.content:int"}. */
Lines preferring(const Lines& settings);

/** The bytes of values on the wire. */
std::string longBytes(unsigned long number);
std::string stringBytes(const std::string& text);

/** A notification with an id and nothing else. */
std::string notificationBytes(unsigned long handle, unsigned long id);

} // namespace VornTest

#endif
