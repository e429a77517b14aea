// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "GdbRun.h"

#include "Process.h"

#include <regex>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

/** What gdb is to show of some expressions, and what that proves. */
struct Case {
    std::string name;
    std::vector<std::pair<std::string, testing::Matcher<const std::string&>>> shown;
};

/** One stop of the debuggee, at which all cases are looked at. */
struct Scene {
    std::string name;
    std::vector<Case> cases;
};

void PrintTo(const Scene& scene, std::ostream* out) {
    *out << scene.name;
}

const std::string cAlarm = ", 1 reference, of class (anonymous namespace)::AlarmCallback";
const std::string cProbe = ", raw, no references, of class (anonymous namespace)::SocketProbe";
const std::string cPipe = "pipe connection to quorax2, not connected, no references, of class (anonymous "
                          "namespace)::LoggedConnection";
const std::string cRegistry =
    "proxy registry: 3 proxies, lock free = {"
    "[pipe:quorax1f3a, handle 3] = smart pointer to proxy of pipe:quorax1f3a, handle 3, 1 reference, "
    "[pipe:quorax1f3a, handle 9] = smart pointer to proxy of pipe:quorax1f3a, handle 9, 1 reference, "
    "[socket:10.0.0.5:5023, handle 2] = smart pointer to proxy of socket:10.0.0.5:5023, handle 2, 1 "
    "reference}";
const std::string cNoText = "<no text: its length would be 4702111234474983745>";
const std::string cNoObject = " at ADDRESS: no object: its first word is 0x4141414141414141>";
const std::string cNothing = " at ADDRESS: no object: its first word is 0x0>";
const std::string cUnreadable = " at ADDRESS: cannot read memory at 0x4141414141414141>";

std::string quotedLetters(std::size_t count) {
    return '"' + std::string(count, 'x') + '"';
}

std::string manyMessages() {
    std::string text = "VornException 1234: \"strange\"";
    for (int count = 0; count < 20; ++count)
        text += "; \"message " + std::to_string(count) + '"';
    return text;
}

const Scene cTexts = {
    "texts",
    {{"text is quoted and escaped",
      {{"sPlain", "\"pipe:quorax1f3a\""}, {"sEmpty", "\"\""}, {"sOdd", R"("a\"b\\c\x00d\x0a\xff ä")"}}},
     {"wide text shows the bytes that it stands for", {{"wide", R"("café \xff")"}, {"empty", "\"\""}}},
     {"text that was overwritten is said to be none",
      {{"sBroken", cNoText}, {"broken", cNoText}, {"sLost", "<cannot read memory at 0x0>"}}}}};

const Scene cSockets = {
    "sockets",
    {{"TCP connection of a client shows where it leads and its state",
      {{"unused", "TCP connection to db.example:5023, not connected, service stock, no references"},
       {"base", "TCP connection to 127.0.0.1:5023, connected, descriptor 4" + cProbe}}},
     {"TCP connection that is blocked in connect is connecting",
      {{"(VornNet::VornSocketConnection&)connecting",
        "TCP connection to 127.0.0.1:5023, connecting, descriptor 77" + cProbe}}},
     {"TCP connection of a server shows the peer and the port",
      {{"peer",
        "TCP connection, accepted on port 5023, connected, descriptor 5, local access, no references"},
       {"named", "TCP connection from monitor.example, accepted, connected, descriptor 6, no references"}}},
     {"SSL connection shows that it has no socket",
      {{"secure", "SSL connection to 10.0.0.5:443, not connected, no references"},
       {"marked", "SSL connection to 10.0.0.5:443, connected without a socket, no references"}}}}};

const Scene cPipes = {
    "pipes",
    {{"pipe connection shows its name and its state",
      {{"unused", "pipe connection to quorax1f3a, not connected, no references"},
       {"client", "pipe connection to quorax1f3a, connected, descriptor 4, no references"},
       {"accepted", "pipe connection, accepted, connected, descriptor 5, access rights 7, local access, no "
                    "references"}}},
     {"connection of a class of the program shows the library's part and its own fields",
      {{"logged", "{<VornNet::VornPipeConnection> = " + cPipe + ", m_nWrites = 3}"}, {"loggedBase", cPipe}}},
     {"buffer connection shows what is waiting in it",
      {{"empty", "buffer connection, nothing written, no references"},
       {"message", "buffer connection, 16 bytes written, 8 waiting: 00 00 00 0c 00 00 00 00, capacity 8192, "
                   "no references"},
       {"received", "buffer connection from 10.0.0.9, 20 bytes written, 20 waiting: 00 00 00 00 00 00 00 00 "
                    "00 00 00 00 00 00 00 00 ..., capacity 8192, no references"}}},
     {"UDP connection shows the message and where it goes",
      {{"datagram", "UDP connection to 10.0.0.5:5024, 7 bytes written, 7 waiting: 00 00 00 03 61 62 63, "
                    "capacity 8192, no references"}}}}};

const Scene cServers = {
    "servers",
    {{"TCP server shows its address and who waits",
      {{"*tcp", "TCP server on 127.0.0.1:5040, listening, descriptor 9, a thread is waiting, backlog 5, 1 "
                "reference"},
       {"closedTcp", "TCP server on *:5042, closed, backlog 5, no references"}}},
     {"UDP server shows its address and who waits",
      {{"*udp", "UDP server on *:5041, bound, descriptor 11, a thread is waiting, datagrams up to 1500 "
                "bytes, 1 reference"}}},
     {"pipe server shows its name and who waits",
      {{"*pipe", "pipe server desk, listening, descriptor 5, a thread is waiting, 1 reference"},
       {"idlePipe",
        "pipe server idle, listening, descriptor 8, access privileges 1, group vorn, no references"},
       {"closedPipe", "pipe server closed, closed, no references"}}},
     {"SSL server shows its certificate",
      {{"ssl", "SSL server on *:443, closed, certificate server.pem, key \"/etc/my keys/server.key\", no "
               "references"}}}}};

const Scene cPointers = {
    "pointers",
    {{"smart pointer shows its target and the count",
      {{"spNothing", "empty smart pointer"},
       {"spOnce", "smart pointer to pipe connection to quorax1f3a, not connected, 1 reference"},
       {"spTwice", "smart pointer to TCP connection to 10.0.0.5:5023, not connected, raw, 2 references"},
       {"spServer", "smart pointer to TCP server on *:5023, closed, backlog 5, 1 reference"}}},
     {"smart pointer to a class of the program shows the class",
      {{"spCallback", "smart pointer to callback 3, event not set" + cAlarm},
       {"spTicket", "smart pointer to object, 1 reference, of class (anonymous namespace)::Ticket"}}}}};

const Scene cCallbacks = {
    "callbacks",
    {{"callback registry shows its entries with their ids",
      {{"none", "callback registry: no callbacks, next id 0, lock free"},
       {"some", "callback registry: 2 callbacks, next id 3, lock free = {[0] = smart pointer to callback 0, "
                "event not set" +
                    cAlarm + ", [2] = smart pointer to callback 2, event set" + cAlarm + "}"}}},
     {"callback registry whose lock is held shows the holder",
      {{"held", "callback registry: no callbacks, next id 0, lock held by thread 1 (2 times over)"}}},
     {"callback sink shows its address, its server and its callbacks",
      {{"sink", MatchesRegex("callback sink pipe:quorax([0-9a-f]+), no references = \\{m_spCallbackServer = "
                             "smart pointer to pipe server quorax([0-9a-f]+), listening, descriptor [0-9]+, "
                             "a thread is waiting, 1 reference, m_callbackContainer = callback registry: 1 "
                             "callback, next id 0, lock free = \\{\\[0\\] = .*")}}}}};

const Scene cDeliveries = {
    "deliveries",
    {{"dispatcher and steady sink show what they have and have done",
      {{"idle", "dispatcher: no notifications queued for no addresses, 0 posted, 0 delivered"},
       {"dispatcher", "dispatcher: 2 notifications queued for 1 address, 2 posted, 0 delivered"},
       {"steady", "steady sink pipe:desk, 0 delivered = {m_container = callback registry: 1 callback, next "
                  "id 0, lock free = {[0] = smart pointer to callback 0, event not set" +
                      cAlarm + "}}"}}},
     {"position is an event of a history",
      {{"position", "after event 42 of history 000000000000001f"}, {"nowhere", "nowhere"}}}}};

const Scene cProxies = {
    "proxies",
    {{"proxy registry shows its entries in the order of their keys",
      {{"registry", cRegistry}, {"*VornNet::VornProxyDependentContainer::m_pThis", cRegistry}}},
     {"proxy identifier shows address and handle", {{"identifier", "udp:10.0.0.5:5024, handle -1"}}}}};

const Scene cNoProxies = {
    "noproxies",
    {{"proxy registry without entries says so", {{"registry", "proxy registry: no proxies, lock free"}}}}};

const Scene cValues = {
    "values",
    {{"notification shows its id", {{"notification", "notification 12"}}},
     {"exception shows code, text and messages",
      {{"exception", "VornException 98 (EADDRINUSE): \"VornServerSocket::init: failed to bind socket.\"; "
                     "\"while the sink was started\""},
       {"plain", R"(VornException 0: "no \"code\"")"},
       {"unresolved",
        "VornUnableToResolveNameException 0: \"VornUnableToResolveNameException - db.example\""}}},
     {"exception with more messages than a block of the queue shows them all", {{"unknown", manyMessages()}}},
     {"certificate shows its files",
      {{"certificate", "certificate server.pem, key \"/etc/my keys/server.key\""}}},
     {"event shows whether it is set", {{"quiet", "event not set"}, {"signalled", "event set"}}},
     {"thread shows its name and whether it runs",
      {{"thread", HasSubstr("thread \"worker\", not running, no references, of class")}}},
     {"logger shows its level", {{"logger", "logger, level 4, access allowed"}}}}};

const Scene cOverwritten = {
    "overwritten",
    {{"object that was overwritten is said to be none",
      {{"*socket", "<VornNet::VornSocketConnection" + cNoObject},
       {"*callbacks", "<VornNet::VornCallbackContainer" + cNoObject}}},
     {"object with a pointer to its state, that was overwritten, says what cannot be read",
      {{"*dispatcher", StartsWith("<VornNet::VornDispatcher at ADDRESS: ")},
       {"*publisher", StartsWith("<VornNet::VornPublisher at ADDRESS: ")},
       {"*zeroPublisher", "<VornNet::VornPublisher at ADDRESS: there is no state: destroyed, or left to a "
                          "child process>"}}},
     {"object without virtual functions, that was overwritten, says what cannot be read",
      {{"*pointer", "smart pointer to <VornNet::VornConnection at 0x4141414141414141: cannot read memory at "
                    "0x4141414141414141>"},
       {"*identifier", cNoText + ", handle 4702111234474983745"}}},
     {"object where there is nothing but zeros is said to be none",
      {{"*zeroCallbacks", "<VornNet::VornCallbackContainer" + cNothing},
       {"*zeroPointer", "empty smart pointer"}}},
     {"object whose first word leads into data is said to be none",
      {{"*freed", "<VornNet::VornSocketConnection at ADDRESS: no object: its first word is ADDRESS>"}}},
     {"object whose destructor has run is said to be destroyed",
      {{"*destroyed", MatchesRegex("<VornNet::VornPipeConnection at ADDRESS: destroyed: only its "
                                   "(VornNet::VornConnection|VornSupport::VornObjectBase) is left>")}}}}};

const Scene cSpoiled = {
    "spoiled",
    {{"connection whose fields were overwritten says what cannot be read",
      {{"*socket", "<VornNet::VornSocketConnection" + cUnreadable},
       {"*pipe", "<VornNet::VornPipeConnection" + cUnreadable}}},
     {"buffer connection whose fields were overwritten shows them as they are",
      {{"*buffer", "buffer connection from " + cNoText +
                       ", 1094795585 bytes written, 0 waiting, capacity 1094795585, service " + cNoText +
                       ", raw, local access, 1094795585 references"}}},
     {"server whose fields were overwritten says what cannot be read",
      {{"*server", "<VornNet::VornServerSocket" + cUnreadable},
       {"*pipeServer", "<VornNet::VornPipeServer" + cUnreadable}}},
     {"registry whose fields were overwritten says what cannot be read",
      {{"*callbacks",
        "callback registry: 4702111234474983745 callbacks, next id 1094795585, "
        "<VornSupport::VornCriticalSectionObject at ADDRESS: cannot read memory at 0x4141414141414141> = "
        "{[...] = <cannot read memory at 0x4141414141414151>}"}}},
     {"registry whose tree leads back to itself is not walked without end",
      {{"circleBase",
        "callback registry: 2 callbacks, next id 0, lock free, of class (anonymous "
        "namespace)::CallbackContainerProbe = {[...] = <the tree of entries leads back to ADDRESS>}"}}},
     {"other objects whose fields were overwritten say what cannot be read",
      {{"(VornNet::VornNotificationCallback&)*callback",
        "<(anonymous namespace)::AlarmCallback at ADDRESS: Cannot access memory at address "
        "0x41414141414141b1>"},
       {"*exception", "VornException 1094795585: " + cNoText},
       {"*event", "<VornSupport::VornEvent at ADDRESS: Cannot access memory at address 0x41414141414141b1>"},
       {"(VornSupport::VornThread&)*thread",
        HasSubstr("IdleThread at ADDRESS: Cannot access memory at address 0x41414141414")},
       {"*certificate", "certificate " + cNoText + ", key " + cNoText}}},
     {"connection whose cell holds no descriptor says so",
      {{"badCellBase", "<(anonymous namespace)::SocketProbe at ADDRESS: the cell at ADDRESS holds "
                       "0xdeadbeef, which is no descriptor>"}}},
     {"buffer connection with impossible positions says so",
      {{"senselessBase",
        "<(anonymous namespace)::BufferProbe at ADDRESS: positions 9 and 4 in 8192 bytes make no sense>"}}},
     {"TCP connection whose server is gone says what cannot be read",
      {{"orphan",
        "<VornNet::VornSocketConnection at ADDRESS: Cannot access memory at address 0x414141414141414d>"}}}}};

class GdbPrintersAt : public LeakCheckedTest, public testing::WithParamInterface<Scene> {};

/** The environment in which the debuggee finds the libraries without their debug information. */
class WithoutSymbols {
public:
    WithoutSymbols() {
        strip(VORNTEST_VORNNET_FILE, "libvornnet.so.1");
        strip(VORNTEST_VORNSUPT_FILE, "libvornsupt.so.1");
    }

    Lines environment() const { return {"LD_LIBRARY_PATH=" + m_directory.path()}; }

private:
    void strip(const std::string& library, const std::string& name) const {
        ChildProcess strip =
            ChildProcess::spawn({"strip", "-g", "-o", m_directory.path() + "/" + name, library});
        EXPECT_EQ(strip.wait(), 0) << strip.readAllErrors();
    }

    TemporaryDirectory m_directory;
};

std::string withoutSymbols(const std::string& name) {
    return "<" + name + " at ADDRESS: no debug symbols of the library>";
}

/** What the debuggee and gdb print when gdb is given the commands. */
GdbOutput debug(const Lines& commands) {
    Lines arguments = executing(commands);
    arguments.insert(arguments.end(), {"--args", VORNTEST_DEBUGGEE});
    return runGdb(arguments);
}

} // namespace

TEST_P(GdbPrintersAt, EachObject_IsShownAsWhatItIs) {
    Lines expressions;
    for (const Case& one : GetParam().cases) {
        for (const auto& [expression, shown] : one.shown)
            expressions.push_back(expression);
    }
    const Lines texts = show(GetParam().name, expressions);
    ASSERT_EQ(texts.size(), expressions.size());
    auto text = texts.begin();
    for (const Case& one : GetParam().cases) {
        for (const auto& [expression, shown] : one.shown)
            EXPECT_THAT(*text++, shown) << one.name << ": " << expression;
    }
}

INSTANTIATE_TEST_SUITE_P(Scenes, GdbPrintersAt,
                         testing::Values(cTexts, cSockets, cPipes, cServers, cPointers, cCallbacks,
                                         cDeliveries, cProxies, cNoProxies, cValues, cOverwritten, cSpoiled),
                         [](const auto& instance) { return instance.param.name; });

TEST_F(GdbPrinters, Text_LongerThanTheDebuggersLimit_IsCut) {
    EXPECT_THAT(
        show("texts", {"sLong", "set print elements 5", "sLong", "wide", "set print elements 0", "sLong"}),
        ElementsAre(quotedLetters(200) + "...", quotedLetters(5) + "...", "\"café \"...",
                    quotedLetters(300)));
}

TEST_F(GdbPrinters, Text_WhereTheTerminalLacksItsCharacters_IsEscaped) {
    EXPECT_THAT(show("texts", {"set host-charset ASCII", "sOdd", "wide"}),
                ElementsAre(R"("a\"b\\c\x00d\x0a\xff \xc3\xa4")", R"("caf\xc3\xa9 \xff")"));
}

TEST_F(GdbPrinters, SmartPointersOperators_WorkWithoutCallingTheProgram) {
    EXPECT_THAT(
        showInCore("pointers", {"*spOnce", "spTwice->m_sRemoteName", "spTwice->m_bRaw"}),
        ElementsAre("pipe connection to quorax1f3a, not connected, 1 reference", "\"10.0.0.5\"", "true"));
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

TEST_F(GdbPrinters, CoreDump_ShowsTheSameAsTheProcess) {
    const Lines expressions = {"none", "some", "held"};
    EXPECT_EQ(showInCore("callbacks", expressions), show("callbacks", expressions));
}

TEST_F(GdbPrinters, NullPointer_IsTheDebuggersOwnError) {
    EXPECT_EQ(debug({"break stopHere", "run overwritten", "up", "output *pNull"}).errors,
              "Cannot access memory at address 0x0\n");
}

TEST_F(GdbPrinters, ServerThatIsBeingClosed_ShowsBothThreads) {
    const GdbOutput run = debug({"break stopHere", "run servers", "break VornNet::ServerGate::Closing::close",
                                 "continue", "frame function showServers", "output *tcp"});
    EXPECT_THAT(run.output, HasSubstr("TCP server on 127.0.0.1:5040, listening, descriptor 9, a thread is "
                                      "waiting, a thread is closing it, backlog 5, 1 reference"));
}

TEST_F(GdbPrinters, RawFormat_ShowsTheFields) {
    EXPECT_THAT(debug({"break stopHere", "run pipes", "up", "print/r client"}).output,
                HasSubstr("m_iAccessRights = 1"));
}

TEST_F(GdbPrinters, Printers_CanBeListedAndSwitchedOff) {
    const std::string output = debug({"break stopHere", "run pipes", "up", "info pretty-printer",
                                      "disable pretty-printer global vornnet", "output client"})
                                   .output;
    EXPECT_THAT(output, HasSubstr("\n  vornnet\n"));
    EXPECT_THAT(output, Not(HasSubstr("pipe connection to")));
    EXPECT_THAT(output, HasSubstr("m_iAccessRights = 1"));
}

TEST_F(GdbPrinters, LibraryWithoutDebugSymbols_ShowsClassesOnly) {
    const WithoutSymbols libraries;
    EXPECT_THAT(show("pointers", {"spNothing", "spOnce", "spCallback", "spTicket", "*spTwice"},
                     libraries.environment()),
                ElementsAre("empty smart pointer",
                            "smart pointer to " + withoutSymbols("VornNet::VornPipeConnection"),
                            "smart pointer to " + withoutSymbols("(anonymous namespace)::AlarmCallback"),
                            "smart pointer to " + withoutSymbols("(anonymous namespace)::Ticket"),
                            withoutSymbols("VornNet::VornSocketConnection")));
}

TEST_F(GdbPrinters, LibraryWithoutDebugSymbols_StillShowsTexts) {
    const WithoutSymbols libraries;
    EXPECT_THAT(show("texts", {"sPlain", "wide"}, libraries.environment()),
                ElementsAre("\"pipe:quorax1f3a\"", R"("café \xff")"));
}
