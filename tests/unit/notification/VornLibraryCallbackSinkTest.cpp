// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "BeforeAllocation.h"
#include "Interpose.h"
#include "NotificationPeer.h"
#include "Sandbox.h"

#include <atomic>
#include <cerrno>
#include <type_traits>

#include <VornNotification.h>
#include <VornProxyDependent.h>
#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>
#include <gmock/gmock.h>
#include <netdb.h>
#include <unistd.h>

using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Values;
using VornNet::VornSmartPointer;

using Sink = VornNet::VornLibraryCallbackSink;
using Connection = VornSmartPointer<VornNet::VornConnection>;

class VornLibraryCallbackSink : public NotificationTest {};

class VornLibraryCallbackSink_OfAnyKind : public NotificationTestOfKind {};

class VornLibraryCallbackSink_OnPorts : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_OfAnyKind, Values(Kind::pipe, Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_OnPorts, Values(Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());

class VornLibraryCallbackSink_OfOtherType : public NotificationTest,
                                            public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Text, VornLibraryCallbackSink_OfOtherType,
                         Values("Pipe", "", "SOCKET", "socket ", " udp", "ssl", "pipes", "tcp"));

/** Takes a port away from the sinks. */
UniqueFd occupy(Kind kind, int port) {
    return kind == Kind::udp ? udpSocket("127.0.0.1", port) : tcpListen("127.0.0.1", port);
}

bool isFileThere(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

} // namespace

static_assert(!std::is_default_constructible_v<Sink>);
static_assert(!std::is_copy_constructible_v<Sink>);
static_assert(!std::is_copy_assignable_v<Sink>);

// What a sink is called, and how it is chosen.

TEST_F(VornLibraryCallbackSink, WithoutVariable_IsPipeNamedByProcessId) {
    SinkProbe sink("sink");
    EXPECT_EQ(sink.getCallbackAddress(), "pipe:" + ownPipeName());
    EXPECT_EQ(sink.getCallbackSocket(), 5023);
    EXPECT_EQ(sink.m_sCallbackType, "pipe");
    EXPECT_EQ(sink.m_sIpAddr, "");
    EXPECT_EQ(sink.m_bThreadStarted, true);
}

TEST_P(VornLibraryCallbackSink_OfAnyKind, HasAddressWhenConstructed) {
    WatchedSink sink(GetParam());
    EXPECT_EQ(sink->getCallbackAddress(), firstAddress(GetParam()));
    EXPECT_EQ(sink->getCallbackSocket(), 5023);
    EXPECT_EQ(sink->m_sCallbackType, nameOf(GetParam()));
    EXPECT_EQ(sink->m_sCallbackName, firstAddress(GetParam()));
    EXPECT_EQ(sink->m_sIpAddr, GetParam() == Kind::pipe ? "" : "127.0.0.1");
    EXPECT_EQ(sink->m_bThreadStarted, true);
}

TEST_P(VornLibraryCallbackSink_OfAnyKind, CanBeReachedWhenConstructed) {
    // The thread need not be there yet, but what is sent must not be refused.
    WatchedSink sink(GetParam());
    EXPECT_NO_THROW(sendByHand(sink.address(), onWire(0)));
}

TEST_P(VornLibraryCallbackSink_OfOtherType, IsPipe) {
    useTypeText(GetParam());
    LogCapture log;
    SinkProbe sink("sink");
    EXPECT_EQ(sink.getCallbackAddress(), "pipe:" + ownPipeName());
    EXPECT_EQ(sink.m_sCallbackType, "pipe");
    ASSERT_TRUE(log.await("waiting for data"));
    EXPECT_THAT(
        sinkRecords(log),
        ElementsAre(
            debugRecord("VornLibraryCallbackSink: moduleName=|sink|"), debugRecord("run: enter"),
            debugRecord("establishCallbackServer: unknown callback server type, creating default"),
            debugRecord("establishCallbackServer: creating default (pipe) server '" + ownPipeName() + "'"),
            debugRecord("run: waiting for data : pipe:" + ownPipeName())));
}

TEST_F(VornLibraryCallbackSink, ServerIsMadeAsKindAsks) {
    WatchedSink pipe(Kind::pipe, "pipe");
    EXPECT_EQ(pipe->m_spCallbackServer->getClassName(), "VornNet::VornPipeServer");
    EXPECT_TRUE(isFileThere(pipePath(ownPipeName())));
    CallTrace trace;
    WatchedSink socket(Kind::socket, "socket");
    EXPECT_EQ(socket->m_spCallbackServer->getClassName(), "VornNet::VornServerSocket");
    ASSERT_EQ(trace.calls("listen"), 1);
    EXPECT_EQ(trace.records("listen").at(0).second, 5);
    WatchedSink udp(Kind::udp, "udp");
    EXPECT_EQ(udp->m_spCallbackServer->getClassName(), "VornNet::VornUDPServerSocket");
    const CallbackPointer callback = addCallback(*udp);
    deliver(udp, callback, onWire(1));
    ASSERT_GE(trace.calls("recvfrom"), 1);
    EXPECT_EQ(trace.records("recvfrom").at(0).second, 16777215);
}

TEST_P(VornLibraryCallbackSink_OnPorts, AddressIsThatOfOfficialNameOfLocalhost) {
    useHostsFile("127.0.0.9 vega\n127.0.0.1 vega localhost\n");
    LogCapture log;
    WatchedSink sink(GetParam());
    EXPECT_EQ(log.count("getMyIpAddr: address is '127.0.0.9'"), 1);
    EXPECT_EQ(sink.address(), nameOf(GetParam()) + ":127.0.0.9:5023");
    EXPECT_EQ(sink->m_sIpAddr, "127.0.0.9");
    EXPECT_EQ(dynamic_cast<VornNet::VornServerSocket&>(*sink->m_spCallbackServer).getBindAddress(),
              "127.0.0.9");
    const CallbackPointer callback = addCallback(*sink);
    deliver(sink, callback, "x");
    EXPECT_THAT(callback->contents(), ElementsAre("x"));
}

// Ports in use.

TEST_P(VornLibraryCallbackSink_OnPorts, WhenPortIsTaken_MovesToNext) {
    const UniqueFd stranger = occupy(GetParam(), 5023);
    LogCapture log;
    WatchedSink sink(GetParam());
    EXPECT_EQ(sink.address(), addressWithPort(GetParam(), 5024));
    EXPECT_EQ(sink->getCallbackSocket(), 5024);
    ASSERT_TRUE(sink.awaitServing());
    const std::string made = GetParam() == Kind::udp ? "udp" : "tcp";
    EXPECT_THAT(
        sinkRecords(log),
        ElementsAre(debugRecord("VornLibraryCallbackSink: moduleName=|sink|"), debugRecord("run: enter"),
                    debugRecord("establishCallbackServer: creating " + made + " server on socket 5023"),
                    debugRecord("getMyIpAddr: address is '127.0.0.1'"),
                    debugRecord("run: waiting for data : " + addressWithPort(GetParam(), 5023)),
                    debugRecord("tryNextPort: retrying " + nameOf(GetParam()) + " server on socket 5024"),
                    debugRecord("run: exception=98 trying next port=5024"),
                    debugRecord("run: waiting for data : " + addressWithPort(GetParam(), 5024))));
    const CallbackPointer callback = addCallback(*sink);
    deliver(sink, callback, "moved");
    EXPECT_THAT(callback->contents(), ElementsAre("moved"));
}

TEST_P(VornLibraryCallbackSink_OnPorts, SecondSinkOfProcess_HasNextPort) {
    WatchedSink first(GetParam(), "first");
    WatchedSink second(GetParam(), "second");
    EXPECT_EQ(second.address(), addressWithPort(GetParam(), 5024));
    const CallbackPointer ofFirst = addCallback(*first);
    const CallbackPointer ofSecond = addCallback(*second);
    deliver(first, ofFirst, "to first");
    deliver(second, ofSecond, "to second");
    EXPECT_THAT(ofFirst->contents(), ElementsAre("to first"));
    EXPECT_THAT(ofSecond->contents(), ElementsAre("to second"));
}

TEST_F(VornLibraryCallbackSink, SecondPipeSinkOfProcess_TakesNameOver) {
    WatchedSink first(Kind::pipe, "first");
    const CallbackPointer ofFirst = addCallback(*first);
    ASSERT_TRUE(first.awaitServing());
    WatchedSink second(Kind::pipe, "second");
    const CallbackPointer ofSecond = addCallback(*second);
    EXPECT_EQ(first.address(), second.address());
    ASSERT_TRUE(second.awaitServing());
    sendByHand(first.address(), onWire(0) + "whose");
    ASSERT_TRUE(ofSecond->awaitCalls(1));
    EXPECT_THAT(ofSecond->contents(), ElementsAre("whose"));
    EXPECT_THAT(ofFirst->contents(), IsEmpty());
}

TEST_P(VornLibraryCallbackSink_OnPorts, MoveWhileListening_ChangesAddressButNotServer) {
    LogCapture log;
    WatchedSink sink(GetParam());
    bool hasMoved = false;
    const CallbackPointer callback = addCallback(*sink, [&](Connection& connection) {
        hasMoved = hasMoved || sink->tryNextPort(); // the server is closed only after the callback
        return readToEnd(*connection);
    });
    deliver(sink, callback, "before");
    ASSERT_TRUE(sink.awaitServing());
    EXPECT_TRUE(hasMoved);
    EXPECT_EQ(sink.address(), addressWithPort(GetParam(), 5024));
    EXPECT_EQ(sink->getCallbackSocket(), 5024);
    EXPECT_EQ(log.count("tryNextPort: retrying " + nameOf(GetParam()) + " server on socket 5024"), 1);
    sendByHand(addressWithPort(GetParam(), 5023), onWire(0) + "to the old port");
    EXPECT_TRUE(callback->awaitCalls(2));
    EXPECT_THAT(callback->contents(), ElementsAre("before", "to the old port"));
}

TEST_P(VornLibraryCallbackSink_OnPorts, PortsBehindHighest_AreNegativeAndWork) {
    WatchedSink sink(GetParam());
    int portOfServer = 0;
    const CallbackPointer mover = addCallback(*sink, [&](Connection& connection) {
        // The sink's own thread: nobody else touches these fields meanwhile.
        const std::string content = readToEnd(*connection);
        sink->m_spCallbackServer->close();
        sink->m_nCallbackServerPort = 32767;
        sink->tryNextPort();
        portOfServer = dynamic_cast<VornNet::VornServerSocket&>(*sink->m_spCallbackServer).getPort();
        return content;
    });
    const CallbackPointer callback = addCallback(*sink);
    deliver(sink, mover, "");
    ASSERT_TRUE(sink.awaitServing());
    EXPECT_EQ(portOfServer, -32768);
    EXPECT_EQ(sink->getCallbackSocket(), -32768);
    EXPECT_EQ(sink.address(), addressWithPort(GetParam(), -32768));
    VornSmartPointer<VornNet::VornProxyDependent> proxy =
        new VornNet::VornProxyDependent(sink.address(), callback->getId());
    proxy->remoteNotify(VornSupport::VornNotification(12));
    ASSERT_TRUE(callback->awaitCalls(1));
    EXPECT_EQ(hex(callback->contents().at(0)), hex(onWire(12)));
}

TEST_F(VornLibraryCallbackSink, PipeHasNoNextPort) {
    WatchedSink sink(Kind::pipe);
    ASSERT_TRUE(sink.awaitServing());
    LogCapture log;
    EXPECT_FALSE(sink->tryNextPort());
    EXPECT_EQ(sink->getCallbackSocket(), 5023);
    EXPECT_EQ(sink.address(), firstAddress(Kind::pipe));
    EXPECT_THAT(log.texts(), IsEmpty());
}

/** How often the port on which the sink was open before is tried again. */
constexpr int retries = 50;

TEST_P(VornLibraryCallbackSink_OnPorts, AddressIsReadWhileItMovesAndTheServerStays) {
    WatchedSink sink(GetParam());
    const VornSmartPointer<VornNet::VornIPCServer> server = sink->m_spCallbackServer;
    addCallback(*sink);
    constexpr int moves = 300;
    FaultRule inUse("bind", EADDRINUSE, 1, retries + moves);
    inUse.onlyThread(sink.tid());
    std::atomic<bool> ends{false};
    std::atomic<int> wrong{0};
    const auto read = [&] {
        while (!ends) {
            const Target target(sink->getCallbackAddress());
            const bool isRight = target.kind == nameOf(GetParam()) && target.place == "127.0.0.1" &&
                                 target.port >= 5023 && target.port <= 5023 + moves &&
                                 sink->getCallbackSocket() >= 5023;
            wrong += isRight ? 0 : 1;
        }
    };
    ASSERT_TRUE(sink.awaitServing());
    WatchedThread first(read);
    WatchedThread second(read);
    sendByHand(addressWithPort(GetParam(), 5023), onWire(0));
    EXPECT_TRUE(awaitCondition([&] { return sink.address() == addressWithPort(GetParam(), 5023 + moves); }));
    ends = true;
    EXPECT_TRUE(first.join());
    EXPECT_TRUE(second.join());
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(sink->m_spCallbackServer == server);
    EXPECT_EQ(dynamic_cast<VornNet::VornServerSocket&>(*sink->m_spCallbackServer).getPort(), 5023 + moves);
}

TEST_P(VornLibraryCallbackSink_OfAnyKind, ServerEstablishedAgain_ReplacesFormerOne) {
    WatchedSink sink(GetParam());
    const std::string address = sink.address();
    VornSmartPointer<VornNet::VornIPCServer> former = sink->m_spCallbackServer;
    ASSERT_TRUE(sink.awaitServing());
    former->close();
    ASSERT_TRUE(sink.awaitEnd()); // only the sink's thread establishes servers otherwise
    EXPECT_EQ(former->refCount(), 2);
    sink->establishCallbackServer();
    EXPECT_EQ(former->refCount(), 1);
    EXPECT_FALSE(sink->m_spCallbackServer == nullptr);
    EXPECT_FALSE(sink->m_spCallbackServer == former);
    EXPECT_EQ(sink.address(), address);
}

TEST_P(VornLibraryCallbackSink_OnPorts, AddressIsNotRewrittenWhileItIsCopied) {
    WatchedSink sink(GetParam());
    ASSERT_TRUE(sink.awaitServing());
    std::unique_ptr<WatchedThread> mover;
    const std::function<void()> move = [&] {
        mover = std::make_unique<WatchedThread>([&] { sink->tryNextPort(); });
        EXPECT_TRUE(awaitBlockedOnLock(mover->tid()));
        EXPECT_FALSE(mover->finished());
    };
    beforeNextAllocation(move); // the copy's
    const std::string address = sink.address();
    EXPECT_EQ(address, addressWithPort(GetParam(), 5023));
    ASSERT_NE(mover, nullptr);
    EXPECT_TRUE(mover->join());
    EXPECT_EQ(sink.address(), addressWithPort(GetParam(), 5024));
}

// The address of this host cannot be found.

TEST_F(VornLibraryCallbackSink, WhenLocalhostIsUnknown_UdpAddressHasEmptyPart) {
    useHostsFile("127.0.0.1 vega\n");
    LogCapture log;
    WatchedSink sink(Kind::udp);
    EXPECT_EQ(sink.address(), "udp::5023");
    EXPECT_EQ(sink->m_sIpAddr, "");
    EXPECT_EQ(log.count("getMyIpAddr"), 0);
    EXPECT_EQ(dynamic_cast<VornNet::VornServerSocket&>(*sink->m_spCallbackServer).getBindAddress(), "");
}

TEST_F(VornLibraryCallbackSink, WhenOfficialNameIsUnknown_UdpAddressHasEmptyPart) {
    FaultRule second("gethostbyname_r", HOST_NOT_FOUND, 2);
    second.returning(0);
    WatchedSink sink(Kind::udp);
    EXPECT_EQ(sink.address(), "udp::5023");
    EXPECT_EQ(second.calls(), 2);
}
