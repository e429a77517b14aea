// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "GdbRun.h"

#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

const std::string cAlarm = ", 1 reference, of class (anonymous namespace)::AlarmCallback";

std::string quotedLetters(std::size_t count) {
    return '"' + std::string(count, 'x') + '"';
}

} // namespace

TEST_F(GdbPrinters, Text_IsQuotedAndEscaped) {
    EXPECT_THAT(show("texts", {"sPlain", "sEmpty", "sOdd"}),
                ElementsAre("\"pipe:quorax1f3a\"", "\"\"", R"("a\"b\\c\x00d\x0a\xff ä")"));
}

TEST_F(GdbPrinters, Text_LongerThanTheDebuggersLimit_IsCut) {
    EXPECT_THAT(
        show("texts", {"sLong", "set print elements 5", "sLong", "wide", "set print elements 0", "sLong"}),
        ElementsAre(quotedLetters(200) + "...", quotedLetters(5) + "...", "\"café \"...",
                    quotedLetters(300)));
}

TEST_F(GdbPrinters, WideText_ShowsTheBytesThatItStandsFor) {
    EXPECT_THAT(show("texts", {"wide", "empty"}), ElementsAre(R"("café \xff")", "\"\""));
}

TEST_F(GdbPrinters, Text_WhereTheTerminalLacksItsCharacters_IsEscaped) {
    EXPECT_THAT(show("texts", {"set host-charset ASCII", "sOdd", "wide"}),
                ElementsAre(R"("a\"b\\c\x00d\x0a\xff \xc3\xa4")", R"("caf\xc3\xa9 \xff")"));
}

TEST_F(GdbPrinters, SmartPointer_ShowsItsTargetAndTheCount) {
    EXPECT_THAT(
        show("pointers", {"spNothing", "spOnce", "spTwice", "spServer"}),
        ElementsAre("empty smart pointer",
                    "smart pointer to pipe connection to quorax1f3a, not connected, 1 reference",
                    "smart pointer to TCP connection to 10.0.0.5:5023, not connected, raw, 2 references",
                    "smart pointer to TCP server on *:5023, closed, backlog 5, 1 reference"));
}

TEST_F(GdbPrinters, SmartPointerToAClassOfTheProgram_ShowsTheClass) {
    EXPECT_THAT(show("pointers", {"spCallback", "spTicket"}),
                ElementsAre("smart pointer to callback 3, event not set" + cAlarm,
                            "smart pointer to object, 1 reference, of class (anonymous namespace)::Ticket"));
}

TEST_F(GdbPrinters, SmartPointersOperators_WorkWithoutCallingTheProgram) {
    EXPECT_THAT(
        showInCore("pointers", {"*spOnce", "spTwice->m_sRemoteName", "spTwice->m_bRaw"}),
        ElementsAre("pipe connection to quorax1f3a, not connected, 1 reference", "\"10.0.0.5\"", "true"));
}

TEST_F(GdbPrinters, CallbackRegistry_ShowsItsEntriesWithTheirIds) {
    EXPECT_THAT(
        show("callbacks", {"none", "some"}),
        ElementsAre("callback registry: no callbacks, next id 0, lock free",
                    "callback registry: 2 callbacks, next id 3, lock free = {[0] = smart pointer to callback "
                    "0, event not set" +
                        cAlarm + ", [2] = smart pointer to callback 2, event set" + cAlarm + "}"));
}

TEST_F(GdbPrinters, CallbackRegistry_WithMoreEntriesThanTheDebuggersLimit_IsCut) {
    EXPECT_THAT(
        show("callbacks", {"set print elements 2", "many"}),
        ElementsAre("callback registry: 300 callbacks, next id 300, lock free = {[0] = smart pointer to "
                    "callback 0, event not set" +
                    cAlarm + ", [1] = smart pointer to callback 1, event not set" + cAlarm + "...}"));
}

TEST_F(GdbPrinters, CallbackRegistry_WithAllItsEntries_ShowsEachOnceInOrder) {
    const std::string text = show("callbacks", {"set print elements 0", "many"}).at(0);
    const std::regex entry(R"(\[(\d+)\] = smart pointer to callback (\d+),)");
    int expected = 0;
    for (std::sregex_iterator match(text.begin(), text.end(), entry), end; match != end;
         ++match, ++expected) {
        EXPECT_EQ((*match)[1], std::to_string(expected));
        EXPECT_EQ((*match)[2], std::to_string(expected));
    }
    EXPECT_EQ(expected, 300);
}

TEST_F(GdbPrinters, CallbackRegistryWhoseLockIsHeld_ShowsTheHolder) {
    EXPECT_EQ(showOne("callbacks", "held"),
              "callback registry: no callbacks, next id 0, lock held by thread 1 (2 times over)");
}

TEST_F(GdbPrinters, CallbackSink_ShowsItsAddressItsServerAndItsCallbacks) {
    EXPECT_THAT(
        showOne("callbacks", "sink"),
        MatchesRegex(
            "callback sink pipe:quorax([0-9a-f]+), no references = \\{m_spCallbackServer = smart pointer to "
            "pipe server quorax([0-9a-f]+), listening, descriptor [0-9]+, a thread is waiting, 1 reference, "
            "m_callbackContainer = callback registry: 1 callback, next id 0, lock free = \\{\\[0\\] = .*"));
}

TEST_F(GdbPrinters, DispatcherAndSteadySink_ShowWhatTheyHaveAndHaveDone) {
    EXPECT_THAT(
        show("deliveries", {"idle", "dispatcher", "steady"}),
        ElementsAre("dispatcher: no notifications queued for no addresses, 0 posted, 0 delivered",
                    "dispatcher: 2 notifications queued for 1 address, 2 posted, 0 delivered",
                    "steady sink pipe:desk, 0 delivered = {m_container = callback registry: 1 callback, next "
                    "id 0, lock free = {[0] = smart pointer to callback 0, event not set" +
                        cAlarm + "}}"));
}

TEST_F(GdbPrinters, PublisherAndSubscriber_ShowWhomTheyServeAndWhereTheyStand) {
    EXPECT_THAT(
        showInCore("deliveries", {"lonely", "publisher", "subscriber", "away"}),
        ElementsAre("publisher at pipe:lonely, no subscribers, 0 sent",
                    MatchesRegex("publisher at pipe:news, 1 subscriber, 1 sent = \\{\\[1\\] = builds to pid "
                                 "[0-9]+ user [0-9]+, sent up to 1\\}"),
                    MatchesRegex("subscriber of builds, connected, 1 events, after event 1 of history "
                                 "[0-9a-f]{16}"),
                    "subscriber of builds, connecting, cannot connect, 0 events, nowhere"));
}

TEST_F(GdbPrinters, Position_IsAnEventOfAHistory) {
    EXPECT_THAT(show("deliveries", {"position", "nowhere"}),
                ElementsAre("after event 42 of history 000000000000001f", "nowhere"));
}

TEST_F(GdbPrinters, ProxyRegistry_ShowsItsEntriesInTheOrderOfTheirKeys) {
    const std::string text =
        "proxy registry: 3 proxies, lock free = {"
        "[pipe:quorax1f3a, handle 3] = smart pointer to proxy of pipe:quorax1f3a, handle 3, 1 reference, "
        "[pipe:quorax1f3a, handle 9] = smart pointer to proxy of pipe:quorax1f3a, handle 9, 1 reference, "
        "[socket:10.0.0.5:5023, handle 2] = smart pointer to proxy of socket:10.0.0.5:5023, handle 2, 1 "
        "reference}";
    EXPECT_THAT(show("proxies", {"registry", "*VornNet::VornProxyDependentContainer::m_pThis"}),
                ElementsAre(text, text));
}

TEST_F(GdbPrinters, ProxyRegistryWithoutEntries_SaysSo) {
    EXPECT_EQ(showOne("noproxies", "registry"), "proxy registry: no proxies, lock free");
}

TEST_F(GdbPrinters, ProxyIdentifier_ShowsAddressAndHandle) {
    EXPECT_EQ(showOne("proxies", "identifier"), "udp:10.0.0.5:5024, handle -1");
}

TEST_F(GdbPrinters, Notification_ShowsItsId) {
    EXPECT_EQ(showOne("values", "notification"), "notification 12");
}

TEST_F(GdbPrinters, Exception_ShowsCodeTextAndMessages) {
    EXPECT_THAT(
        show("values", {"exception", "plain", "unresolved"}),
        ElementsAre("VornException 98 (EADDRINUSE): \"VornServerSocket::init: failed to bind socket.\"; "
                    "\"while the sink was started\"",
                    R"(VornException 0: "no \"code\"")",
                    "VornUnableToResolveNameException 0: \"VornUnableToResolveNameException - db.example\""));
}

TEST_F(GdbPrinters, ExceptionWithMoreMessagesThanABlockOfTheQueue_ShowsThemAll) {
    std::string expected = "VornException 1234: \"strange\"";
    for (int count = 0; count < 20; ++count)
        expected += "; \"message " + std::to_string(count) + '"';
    EXPECT_EQ(showOne("values", "unknown"), expected);
}

TEST_F(GdbPrinters, Certificate_ShowsItsFiles) {
    EXPECT_EQ(showOne("values", "certificate"), "certificate server.pem, key \"/etc/my keys/server.key\"");
}

TEST_F(GdbPrinters, Event_ShowsWhetherItIsSet) {
    EXPECT_THAT(show("values", {"quiet", "signalled"}), ElementsAre("event not set", "event set"));
}

TEST_F(GdbPrinters, Thread_ShowsItsNameAndWhetherItRuns) {
    EXPECT_THAT(showOne("values", "thread"),
                HasSubstr("thread \"worker\", not running, no references, of class"));
}

TEST_F(GdbPrinters, Logger_ShowsItsLevel) {
    EXPECT_EQ(showOne("values", "logger"), "logger, level 4, access allowed");
}

TEST_F(GdbPrinters, CoreDump_ShowsTheSameAsTheProcess) {
    const Lines expressions = {"none", "some", "held"};
    EXPECT_EQ(showInCore("callbacks", expressions), show("callbacks", expressions));
}

TEST_F(GdbPrinters, RawFormat_ShowsTheFields) {
    Lines arguments = executing({"break stopHere", "run pipes", "up", "print/r client"});
    arguments.insert(arguments.end(), {"--args", VORNTEST_DEBUGGEE});
    EXPECT_THAT(runGdb(arguments).output, HasSubstr("m_iAccessRights = 1"));
}

TEST_F(GdbPrinters, Printers_CanBeListedAndSwitchedOff) {
    Lines arguments = executing({"break stopHere", "run pipes", "up", "info pretty-printer",
                                 "disable pretty-printer global vornnet", "output client"});
    arguments.insert(arguments.end(), {"--args", VORNTEST_DEBUGGEE});
    const std::string output = runGdb(arguments).output;
    EXPECT_THAT(output, HasSubstr("\n  vornnet\n"));
    EXPECT_THAT(output, Not(HasSubstr("pipe connection to")));
    EXPECT_THAT(output, HasSubstr("m_iAccessRights = 1"));
}
