// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "TsharkRun.h"

#include <VornException.h>
#include <VornPublisher.h>
#include <VornSocketConnection.h>
#include <VornSubscriber.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace VornNet;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/** The library's client asks for a service; what answers it is plain POSIX. */
void askForService(const std::string& answer) {
    int port = 5023;
    const UniqueFd listener = tcpListen("127.0.0.1", port);
    VornSocketConnection client("127.0.0.1", port, true, false);
    client.setServiceName("stock");
    WatchedThread service([&] {
        const UniqueFd server = acceptClient(listener.get());
        receiveExactly(server.get(), 7);
        sendAll(server.get(), answer);
        if (answer == "+") {
            receiveExactly(server.get(), 4 + 7 + 2 + 8 + 2);
            sendAll(server.get(), bytes("00 01 00 00  00 01 ff ff"));
        }
        receiveToEnd(server.get());
    });
    if (answer == "+") {
        client.transfer(5);
        client.transfer("abc");
        client.transfer(static_cast<short>(-2));
        client.transfer(7L);
        client.transfer(true);
        EXPECT_EQ(client.receiveShort() + client.receiveShort() + client.receiveShort(), 2);
        EXPECT_EQ(client.receiveShort(), -1);
    } else {
        EXPECT_THROW(client.establish(), VornSupport::VornException);
    }
    client.disconnect();
    EXPECT_TRUE(service.join());
}

const std::string cHistory = bytes("20 33 39 fa d6 94 4e 25");

/** A number of 64 bits that is small. */
std::string numberBytes(unsigned char number) {
    return bytes("00 00 00 00 00 00 00") + static_cast<char>(number);
}

/** Asks for events from the oldest on. */
std::string requestBytes(const std::string& words) {
    return bytes("00 00 00 01") + stringBytes("") + longBytes(0) + bytes("00 00 00 02") +
           std::string(16, '\0') + stringBytes(words);
}

std::string admissionBytes() {
    return bytes("00 01 00 00") + cHistory + numberBytes(1) + numberBytes(1) + bytes("00 00 13 88");
}

std::string frameBytes(unsigned char kind, const std::string& rest) {
    return bytes("00 00 00") + static_cast<char>(kind) + bytes("00 00 00") + static_cast<char>(rest.size()) +
           rest;
}

const std::string cEvent = frameBytes(1, numberBytes(1) + bytes("00 00 00 05") + stringBytes("kernel"));
const std::string cGap = frameBytes(2, cHistory + numberBytes(2) + numberBytes(5));
const std::string cSign = frameBytes(3, numberBytes(7));
const std::string cEnd = frameBytes(4, bytes("00 00 00 01") + stringBytes("the service stops"));

} // namespace

TEST_F(VornnetDissector, SubscriptionOfTheLibrary_IsShownFromTheRequestToTheEnd) {
    {
        VornPublisher publisher("socket:127.0.0.1:5023", {"builds"});
        publisher.publish("builds", [](VornConnection& content) { content.transfer(5); });
        VornSubscriber::Options options;
        options.start = VornSubscriber::Start::oldest;
        options.sWords = "me";
        const VornSubscriber subscriber(
            publisher.getAddress(), "builds", [](VornConnection&, const VornSubscriber::Event&) {}, options);
        EXPECT_TRUE(awaitCondition([&] { return subscriber.statistics().nEvents == 1; }));
        publisher.stop(std::chrono::seconds(10));
    }
    capture().awaitEnds(2);
    std::string all;
    for (const std::string& line : shown(preferring({"events:int"})))
        all += line + "\n";
    EXPECT_THAT(all, testing::StartsWith("Service: builds\nService: accepted\n"
                                         "Subscription: from the oldest event, \"me\"\n"
                                         "Subscription: admitted, history "));
    EXPECT_THAT(all, testing::HasSubstr("event 1 (int 5)"));
    EXPECT_THAT(all, testing::HasSubstr("end \"the service stops\""));
    EXPECT_THAT(remarks(preferring({"events:int"})), IsEmpty());
    EXPECT_THAT(fields({"vornnet.start", "vornnet.words"}), ElementsAre("2\tme"));
}

TEST_F(VornnetDissector, FramesOfASubscription_AreShownByTheirKinds) {
    const std::string unknown = frameBytes(9, "abc");
    talk({"builds\r\n", "+", requestBytes(""), admissionBytes() + cEvent, "", cGap + cSign + unknown + cEnd});
    EXPECT_THAT(shown(preferring({"events:int,string"})),
                ElementsAre("Service: builds", "Service: accepted", "Subscription: from the oldest event",
                            "Subscription: admitted, history 203339fad6944e25 from event 1, event 1 (int 5, "
                            "string \"kernel\")",
                            "Events: gap from 2, next 5, sign of life, newest 7, frame of kind 9, end \"the "
                            "service stops\""));
    EXPECT_THAT(fields({"vornnet.number"}), ElementsAre("0", "1"));
    EXPECT_THAT(remarks(), IsEmpty());
}

TEST_F(VornnetDissector, SubscriptionInSegmentsOfOneByte_IsPutTogetherWhenChosen) {
    talkSlowly({"builds\r\n", "+", requestBytes("me"), admissionBytes() + cEvent + cSign});
    const Lines options = preferring({"streams:Subscriptions"});
    EXPECT_THAT(shownBothWays(options),
                ElementsAre("Service: builds", "Service: accepted",
                            "Subscription: from the oldest event, \"me\"",
                            "Subscription: admitted, history 203339fad6944e25 from event 1",
                            "Events: event 1 (14 bytes)", "Events: sign of life, newest 7"));
}

TEST_F(VornnetDissector, SubscriptionThatIsRefused_IsShownWithTheReason) {
    talk({"builds\r\n", "+", requestBytes(""), bytes("00 01 ff ff") + stringBytes("not for you")});
    EXPECT_THAT(shown(), Contains("Subscription: refused: \"not for you\""));
}

TEST_F(VornnetDissector, SubscriberThatSaysMore_IsSaidToEndItsSubscription) {
    talk({"builds\r\n", "+", requestBytes(""), admissionBytes(), "x"});
    EXPECT_THAT(remarks(), ElementsAre("Note: it ends the subscription"));
}

TEST_F(VornnetDissector, HostileFrame_EndsTheReadingOfTheEvents) {
    talk({"builds\r\n", "+", requestBytes(""), admissionBytes() + bytes("00 00 00 01 7f ff ff ff 00")});
    EXPECT_THAT(remarks(), ElementsAre("Error: a frame of 2147483655 bytes"));
}

TEST_F(VornnetDissector, ServiceHandshake_ShowsNameAndAnswer) {
    askForService("+");
    capture().awaitEnds(2);
    const Lines lines = shown();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], "Service: stock");
    EXPECT_EQ(lines[1], "Service: accepted");
    EXPECT_EQ(fields({"vornnet.service"}), Lines{"stock"});
    EXPECT_EQ(fields({"vornnet.answer"}), Lines{"0x2b"});
}

TEST_F(VornnetDissector, ServicesValues_AreShownByTheTypesOfThePreferences) {
    askForService("+");
    capture().awaitEnds(2);
    // How the values come to lie in segments is the kernel's.
    std::string request;
    for (const std::string& line : shown(preferring({"request:int,string,short,long,bool", "reply:ack"}))) {
        if (line.rfind("Request: ", 0) == 0)
            request += line.substr(9) + ", ";
    }
    EXPECT_EQ(request, "int 5, string \"abc\", short -2, long 7, bool true, ");
    EXPECT_THAT(shown(preferring({"reply:ack"})), Contains("Reply: ack, error"));
    EXPECT_THAT(fields({"vornnet.token"}, preferring({"reply:ack"})), ElementsAre("0|-1"));
    EXPECT_THAT(remarks(preferring({"request:int,string,short,long,bool", "reply:ack"})), IsEmpty());
}

TEST_F(VornnetDissector, ServiceThatRefuses_IsSaidTo) {
    askForService("-");
    capture().awaitEnds(2);
    EXPECT_THAT(shown(), ElementsAre("Service: stock", "Service: refused"));
    EXPECT_THAT(remarks(), ElementsAre("Note: The service was refused"));
}

TEST_F(VornnetDissector, ServicesValuesWithoutTypes_AreShownAsBytes) {
    talk({"svc\r\n", "+", bytes("00 00 00 05"), bytes("00 01 00 00")});
    EXPECT_THAT(shown(),
                ElementsAre("Service: svc", "Service: accepted", "Request: 4 bytes", "Reply: 4 bytes"));
    EXPECT_THAT(remarks(), IsEmpty());
}

TEST_F(VornnetDissector, HandshakeInSegmentsOfOneByte_IsPutTogether) {
    talkSlowly({"svc\r\n", "+", stringBytes("abc") + stringBytes("de"), bytes("00 01 ff ff")});
    const Lines options = preferring({"request:string", "reply:ack"});
    EXPECT_THAT(shownBothWays(options),
                ElementsAre("Service: svc", "Service: accepted", "Request: string \"abc\"",
                            "Request: string \"de\"", "Reply: error"));
}

TEST_F(VornnetDissector, ValueThatIsSplit_IsShownWhereItEnds) {
    talk({"svc\r\n", "+", stringBytes("abc") + bytes("00 00"), "", bytes("00 02 64 65") + stringBytes("f")});
    const Lines options = preferring({"request:string"});
    EXPECT_THAT(shownBothWays(options),
                ElementsAre("Service: svc", "Service: accepted", "Request: string \"abc\"",
                            "Request: string \"de\", string \"f\""));
    EXPECT_THAT(remarks(options), ElementsAre("Note: 2 bytes of a string"));
}

TEST_F(VornnetDissector, SeveralMessagesOnOneStream_GoOnWithTheTypesWhereTheyWere) {
    talk({"svc\r\n", "+", bytes("00 00 00 01 00 02 00 00 00 03"), bytes("00 01 00 00"),
          bytes("00 04 00 00 00 05"), bytes("00 01 ff ff")});
    const Lines options = preferring({"request:int,short", "reply:ack"});
    EXPECT_THAT(shownBothWays(options),
                ElementsAre("Service: svc", "Service: accepted", "Request: int 1, short 2, int 3",
                            "Reply: ack", "Request: short 4, int 5", "Reply: error"));
}

TEST_F(VornnetDissector, AnswerAndFirstReplyInOneSegment_AreBothShown) {
    talk({"svc\r\n", "+" + bytes("00 01 00 00")});
    EXPECT_THAT(shown(preferring({"reply:ack"})), ElementsAre("Service: svc", "Service: accepted, ack"));
}

TEST_F(VornnetDissector, Lines_AreAType) {
    talk({"svc\r\n", "+", "list\r\nnext\r\nqu", "\r\n", "it\r\n"});
    EXPECT_THAT(shown(preferring({"request:line", "reply:line"})),
                ElementsAre("Service: svc", "Service: accepted", "Request: line \"list\", line \"next\"",
                            "Reply: line \"\"", "Request: line \"quit\""));
}

TEST_F(VornnetDissector, LineWithoutItsEnd_IsAnError) {
    talk({"svc\r\n", "+", std::string(9000, 'x'), "", "more\r\n"});
    const Lines options = preferring({"request:line"});
    EXPECT_THAT(remarks(options), ElementsAre("Error: no CR LF within 8192 bytes"));
    EXPECT_THAT(shown(options), Contains("Data: 6 bytes"));
}

TEST_F(VornnetDissector, TokenThatIsNone_IsSaidToBeNone) {
    talk({"svc\r\n", "+", "", bytes("00 01 00 05 00 02 00 00")});
    const Lines options = preferring({"reply:ack"});
    EXPECT_THAT(shown(options), Contains("Reply: no token, no token"));
    EXPECT_THAT(remarks(options), ElementsAre("Warning: No token", "Warning: No token"));
}

TEST_F(VornnetDissector, HostileLengthInARequest_EndsTheReadingOfThatSide) {
    talk({"svc\r\n", "+", bytes("80 00 00 00 61"), bytes("00 01 ff ff"), stringBytes("abc")});
    const Lines options = preferring({"request:string", "reply:ack"});
    EXPECT_THAT(shown(options), ElementsAre("Service: svc", "Service: accepted", "Request: 5 bytes",
                                            "Reply: error", "Data: 7 bytes"));
    EXPECT_THAT(remarks(options), ElementsAre("Error: a length of -2147483648, which the receiver refuses"));
}

TEST_F(VornnetDissector, ValuesFromTheFirstByte_AreShownWhenChosen) {
    talk({bytes("00 05") + stringBytes("abc"), bytes("00 01 00 00")});
    EXPECT_THAT(shown(), IsEmpty());
    EXPECT_THAT(shown(preferring({"streams:Values", "request:short,string", "reply:ack"})),
                ElementsAre("Request: short 5, string \"abc\"", "Reply: ack"));
}

TEST_F(VornnetDissector, ServiceWithAnUnusualName_IsShownWhenChosen) {
    talk({"caf\xc3\xa9\r\n" + bytes("00 05"), "+"});
    EXPECT_THAT(shown(), IsEmpty());
    const Lines options = preferring({"streams:Service", "request:short"});
    EXPECT_THAT(fields({"vornnet.service"}, options), ElementsAre("caf\xc3\xa9"));
}
