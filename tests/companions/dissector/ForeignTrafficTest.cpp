// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TsharkRun.h"

#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const Lines cTwoPasses = {"-2"};
const char cHttpRequest[] = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
const char cHttpAnswer[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi";

class VornnetDissectorWithRubbish : public VornnetDissector,
                                    public testing::WithParamInterface<std::string> {};

/** Bytes that are somewhat like values: many zeros, small numbers and letters. */
std::string rubbish(std::mt19937& random) {
    std::string text(random() % 60 + 1, '\0');
    for (char& byte : text) {
        const unsigned choice = random() % 4;
        byte = static_cast<char>(choice < 2 ? 0 : choice == 2 ? random() % 16 : random() % 256);
    }
    return text;
}

} // namespace

TEST_F(VornnetDissector, HttpAtASinksPort_IsLeftToItsOwnDissector) {
    talk({cHttpRequest, cHttpAnswer});
    talkSlowly({cHttpRequest, cHttpAnswer});
    for (const Lines& options : {Lines{}, cTwoPasses})
        EXPECT_THAT(shownOfAll(options), ElementsAre("HTTP GET / HTTP/1.1 ", "HTTP HTTP/1.1 200 OK ",
                                                     "HTTP GET / HTTP/1.1 ", "HTTP HTTP/1.1 200 OK "));
}

TEST_F(VornnetDissector, ProtocolWhoseServerSpeaksFirst_IsNotTaken) {
    talk({"", "220 mail.example ESMTP\r\n", "EHLO x\r\n", "250 mail.example\r\n"});
    EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(VornnetDissector, ProtocolThatAnswersALineWithALine_IsNotTakenFurtherThanTheLine) {
    talk({"PING\r\n", "+PONG\r\n", "QUIT\r\n", "+OK\r\n"});
    EXPECT_THAT(shown(), ElementsAre("Service: PING"));
}

TEST_F(VornnetDissector, OtherProtocols_AreNotTaken) {
    talk({"hello\nworld\n"});                                           // lines without a carriage return
    talk({std::string(600, 'x') + "\r\n"});                             // a line too long for a name
    talk({std::string(300, 'x'), "", std::string(300, 'y')});           // and what never becomes one
    talk({bytes("16 03 01 00 a5 01 00 00 a1 03 03 00")});               // TLS
    talk({bytes("00 00 00 2c ff 53 4d 42 72 00 00 00")});               // SMB after a length
    talk({bytes("00 00 00 2c"), "", bytes("ff 53 4d 42 72 00 00 00")}); // the same in two segments
    talk({"SSH-2.0-OpenSSH_9.2\r\n" + bytes("00 00 05 dc 06 14")});
    EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(VornnetDissector, DatagramsOfOthers_AreNotTaken) {
    sendDatagrams({bytes("ab cd 01 00 00 01 00 00 00 00 00 00 01 78 00 00 01 00 01"), // DNS
                   "hello", bytes("12 34"), bytes("00 01 00 02 00 00 00 01"), bytes("07")});
    EXPECT_THAT(shown(), IsEmpty());
}

TEST_P(VornnetDissectorWithRubbish, Anything_IsShownWithoutAnErrorOfTheDissectors) {
    std::mt19937 random(5023); // NOLINT: the same on each run
    Lines datagrams;
    for (int count = 0; count < 300; ++count)
        datagrams.push_back((count % 2 == 0 ? longBytes(7) : "") + rubbish(random));
    sendDatagrams(datagrams);
    for (int count = 0; count < 30; ++count)
        talk({count % 2 == 0 ? "svc\r\n" : rubbish(random), count % 2 == 0 ? "+" : rubbish(random),
              rubbish(random), rubbish(random), rubbish(random)});
    capture().cutPackets(80);
    sendDatagrams(datagrams);
    const Lines options = preferring({"streams:" + GetParam(), "content:string,line,ack,bool,long,short,int",
                                      "request:string,short,line", "reply:line,ack,string"});
    Lines twice = options;
    twice.insert(twice.end(), cTwoPasses.begin(), cTwoPasses.end());
    // The errors are looked for where tshark is run.
    EXPECT_FALSE(shown(options).empty());
    EXPECT_FALSE(remarks(twice).empty());
}

INSTANTIATE_TEST_SUITE_P(All, VornnetDissectorWithRubbish,
                         testing::Values("Detect", "Notifications", "Service", "Values", "Subscriptions"),
                         [](const auto& parameter) { return parameter.param; });
