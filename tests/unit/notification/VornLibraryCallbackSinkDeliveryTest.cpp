// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What becomes of one notification, and of the server and the container meanwhile.
 */

#include "Interpose.h"
#include "NotificationPeer.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <utility>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Values;
using VornNet::VornSmartPointer;

using Connection = VornNet::VornSmartPointer<VornNet::VornConnection>;

class VornLibraryCallbackSink_Delivery : public NotificationTest {};

class VornLibraryCallbackSink_DeliveryOfAnyKind : public NotificationTestOfKind {};

class VornLibraryCallbackSink_DeliveryOnStreams : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_DeliveryOfAnyKind,
                         Values(Kind::pipe, Kind::socket, Kind::udp), testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kind, VornLibraryCallbackSink_DeliveryOnStreams, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());

} // namespace

// What one notification does.

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, NotificationReachesCallback) {
    WatchedSink sink(GetParam());
    const CallbackPointer other = addCallback(*sink);
    const CallbackPointer callback = addCallback(*sink);
    EXPECT_FALSE(callback->wait(0));
    deliver(sink, callback, onWire(12) + "and more");
    EXPECT_THAT(callback->contents(), ElementsAre(onWire(12) + "and more"));
    EXPECT_THAT(other->contents(), IsEmpty());
    EXPECT_TRUE(callback->wait(10000)) << "its event is set";
    EXPECT_FALSE(other->wait(0));
}

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, RecordsOfOneNotification) {
    LogCapture log;
    std::string address;
    {
        WatchedSink sink(GetParam(), "falcon");
        address = sink.address();
        const CallbackPointer callback = addCallback(*sink);
        deliver(sink, callback, onWire(12));
        ASSERT_TRUE(sink.awaitServing());
    }
    std::vector<std::string> expected = {debugRecord("VornLibraryCallbackSink: moduleName=|falcon|"),
                                         debugRecord("run: enter")};
    if (GetParam() == Kind::pipe) {
        expected.push_back(
            debugRecord("establishCallbackServer: creating pipe server '" + ownPipeName() + "'"));
    } else {
        expected.push_back(debugRecord("establishCallbackServer: creating " +
                                       std::string(GetParam() == Kind::udp ? "udp" : "tcp") +
                                       " server on socket 5023"));
        expected.push_back(debugRecord("getMyIpAddr: address is '127.0.0.1'"));
    }
    for (const std::string& text :
         {"run: waiting for data : " + address, "run: received data : " + address,
          std::string("run: hCallback=0"), std::string("run: found callback... invoking"),
          std::string("run: callback returned"), "run: waiting for data : " + address,
          std::string("~VornLibraryCallbackSink: closing socket"),
          "run: NULL returned from waitForClient : " + address + ", exiting",
          std::string("run: exiting rc=0")}) {
        expected.push_back(debugRecord(text));
    }
    EXPECT_THAT(sinkRecords(log), ElementsAreArray(expected));
}

TEST_F(VornLibraryCallbackSink_Delivery, RecordsOfDefaultServer) {
    LogCapture log;
    SinkProbe sink("");
    ASSERT_TRUE(log.await("waiting for data"));
    EXPECT_THAT(sinkRecords(log),
                ElementsAre(debugRecord("VornLibraryCallbackSink: moduleName=||"), debugRecord("run: enter"),
                            debugRecord("establishCallbackServer: creating default (pipe) server '" +
                                        ownPipeName() + "'"),
                            debugRecord("run: waiting for data : pipe:" + ownPipeName())));
}

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, UnknownHandle_IsIgnoredAndLogged) {
    WatchedSink sink(GetParam());
    const CallbackPointer callback = addCallback(*sink);
    ASSERT_TRUE(sink.awaitServing());
    LogCapture log;
    sendByHand(sink.address(), onWire(4711) + onWire(12));
    ASSERT_TRUE(log.await("waiting for data"));
    EXPECT_THAT(sinkRecords(log),
                ElementsAre(debugRecord("run: received data : " + sink.address()),
                            debugRecord("run: hCallback=4711"),
                            debugRecord("run: unable to find callback... ignoring notification"),
                            debugRecord("run: waiting for data : " + sink.address())));
    deliver(sink, callback, "goes on");
    EXPECT_THAT(callback->contents(), ElementsAre("goes on"));
}

TEST_P(VornLibraryCallbackSink_DeliveryOnStreams, UnknownHandle_NothingMoreIsRead) {
    WatchedSink sink(GetParam());
    ASSERT_TRUE(sink.awaitServing());
    CallTrace trace;
    const UniqueFd client = connectToSink(sink.address());
    sendAll(client.get(), onWire(4711) + onWire(12));
    char letter = 0;
    // Linux resets a connection that is closed with bytes unread.
    EXPECT_EQ(::read(client.get(), &letter, 1), -1);
    EXPECT_EQ(errno, ECONNRESET);
    ASSERT_EQ(trace.calls("recv"), 1);
    EXPECT_EQ(trace.records("recv").at(0).second, 8);
    EXPECT_EQ(trace.records("recv").at(0).tid, sink.tid());
}

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, HandleIsCutToInt) {
    const struct {
        const char* handle;
        int id;
        const char* shown;
    } rows[] = {
        {"ff ff ff ff 00 00 00 00", -1, "4294967295"},
        {"80 00 00 00 00 00 00 00", -2147483647 - 1, "2147483648"},
        {"00 00 00 07 de ad be ef", 7, "7"},
    };

    WatchedSink sink(GetParam());
    LogCapture log;
    for (const auto& row : rows) {
        const CallbackPointer callback = addCallbackAs(row.id, *sink);
        sendWhenServing(sink, bytes(row.handle) + "rest");
        ASSERT_TRUE(callback->awaitCalls(1)) << row.handle;
        EXPECT_THAT(callback->contents(), ElementsAre("rest"));
        EXPECT_EQ(log.count(std::string("run: hCallback=") + row.shown), 1);
    }
}

// The server's life between notifications.

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, ServerIsClosedBeforeConnection) {
    WatchedSink sink(GetParam());
    const CallbackPointer callback = addCallback(*sink);
    LogCapture log;
    CallTrace trace;
    ASSERT_TRUE(sink.awaitServing());
    sendByHand(sink.address(), onWire(0));
    ASSERT_TRUE(callback->awaitCalls(1));
    ASSERT_TRUE(sink.awaitServing());
    std::vector<std::string> ownCalls;
    for (const CallRecord& record : trace.records()) {
        if (record.tid == sink.tid() && (record.name == "close" || record.name == "bind"))
            ownCalls.push_back(record.name);
    }
    // The pipe server closes three descriptors, the others one; UDP's wake-up datagram has one of its own.
    switch (GetParam()) {
    case Kind::pipe:
        EXPECT_THAT(ownCalls, ElementsAre("close", "close", "close", "close", "bind"));
        EXPECT_EQ(log.count("VornPipeServer::close: releasing resources"), 1);
        break;
    case Kind::socket:
        EXPECT_THAT(ownCalls, ElementsAre("close", "close", "bind"));
        EXPECT_EQ(log.count("VornServerSocket::close: closing socket 5023"), 1);
        break;
    case Kind::udp:
        EXPECT_THAT(ownCalls, ElementsAre("close", "close", "bind"));
        break;
    }
}

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, WhoComesDuringCallback_IsDroppedWithOldServer) {
    WatchedSink sink(GetParam());
    HeldCallback held;
    const CallbackPointer callback = addCallback(*sink, held.action());
    sendWhenServing(sink, onWire(0) + "first");
    ASSERT_TRUE(held.awaitEntered());
    sendByHand(sink.address(), onWire(0) + "second");
    held.letGoOn();
    ASSERT_TRUE(callback->awaitCalls(1));
    deliver(sink, callback, "third");
    EXPECT_THAT(callback->contents(), ElementsAre("first", "third"));
}

TEST_F(VornLibraryCallbackSink_Delivery, WhenCallbackReadsToEnd_TcpPortStays) {
    WatchedSink sink(Kind::socket);
    const CallbackPointer callback = addCallback(*sink);
    for (int i = 0; i < 50; ++i) {
        deliver(sink, callback, onWire(i));
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_EQ(sink.address(), "socket:127.0.0.1:5023") << "after delivery " << i;
    }
}

TEST_F(VornLibraryCallbackSink_Delivery, WhenSenderLingers_TcpPortMoves) {
    WatchedSink sink(Kind::socket);
    const CallbackPointer callback =
        addCallback(*sink, [](Connection& connection) { return hex(onWire(connection->receiveLong())); });
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(sink.awaitServing());
        const UniqueFd sender = connectToSink(sink.address());
        sendAll(sender.get(), onWire(0) + onWire(i));
        EXPECT_EQ(receiveToEnd(sender.get()), "") << "the sink closes first";
        ASSERT_TRUE(awaitCondition([&] { return sink.address() == addressWithPort(Kind::socket, 5023 + i); }))
            << sink.address();
    }
    EXPECT_EQ(callback->calls(), 3);
}

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, CallbackMayKeepConnection) {
    WatchedSink sink(GetParam());
    std::vector<Connection> kept;
    const CallbackPointer callback = addCallback(*sink, [&](Connection& connection) {
        kept.push_back(connection);
        return std::string();
    });
    for (int i = 1; i <= 3; ++i) {
        deliver(sink, callback, onWire(i));
        ASSERT_TRUE(sink.awaitServing());
    }
    // Over TCP a connection that is still open holds the port.
    EXPECT_EQ(sink.address(),
              GetParam() == Kind::socket ? addressWithPort(GetParam(), 5026) : firstAddress(GetParam()));
    sink.destroy();
    ASSERT_EQ(kept.size(), 3U);
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(kept.at(static_cast<std::size_t>(i - 1))->receiveLong(), i);
}

// The container while notifications arrive.

TEST_P(VornLibraryCallbackSink_DeliveryOnStreams,
       CallbackThatRemovesItself_IsDestroyedWithContainerLockedAndBeforeConnectionIsClosed) {
    struct Destroyed : RecordingCallback {
        Destroyed(int id, Action action, std::function<void()> last)
            : RecordingCallback(id, std::move(action)), m_last(std::move(last)) {}

        ~Destroyed() override { m_last(); }

        std::function<void()> m_last;
    };

    WatchedSink sink(GetParam());
    VornNet::VornCallbackContainer& container = sink->getCallbackContainer();
    UniqueFd client;
    std::unique_ptr<WatchedThread> other;
    bool isLocked = false;
    ssize_t received = 0;
    int error = 0;
    Gate destroyed;
    VornNet::VornSmartPointer<VornNet::VornNotificationCallback> callback = new Destroyed(
        7,
        [&](Connection& connection) {
            container.remove(7);
            return onWire(connection->receiveLong());
        },
        [&] {
            other = std::make_unique<WatchedThread>([&] { container.getNewId(); });
            isLocked = awaitBlockedOnLock(other->tid()) && !other->finished();
            char letter = 0;
            received = ::recv(client.get(), &letter, 1, MSG_DONTWAIT);
            error = errno;
            destroyed.open();
        });
    container.add(callback);
    callback = nullptr;
    ASSERT_TRUE(sink.awaitServing());
    client = connectToSink(sink.address());
    sendAll(client.get(), onWire(7) + onWire(12));
    ASSERT_TRUE(destroyed.await());
    EXPECT_TRUE(isLocked);
    EXPECT_EQ(received, -1);
    EXPECT_EQ(error, EAGAIN);
    EXPECT_TRUE(other->join());
    EXPECT_EQ(receiveToEnd(client.get()), "");
}

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, ContainerIsLockedFromCallbackUntilServerIsClosed) {
    WatchedSink sink(GetParam());
    std::unique_ptr<CallHook> hook;
    std::vector<std::unique_ptr<WatchedThread>> others;
    const auto isLocked = [&] {
        others.push_back(std::make_unique<WatchedThread>([&] { sink->getCallbackContainer().getNewId(); }));
        return awaitBlockedOnLock(others.back()->tid()) && !others.back()->finished();
    };
    bool wasLockedAtClose = false;
    Gate closing;
    const CallbackPointer callback = addCallback(*sink, [&](Connection&) {
        const bool isLockedHere = isLocked();
        hook = std::make_unique<CallHook>("close", [&] {
            wasLockedAtClose = isLocked();
            closing.open();
        });
        return isLockedHere ? "locked" : "free";
    });
    ASSERT_TRUE(sink.awaitServing());
    int port = 0;
    const UniqueFd sender =
        GetParam() == Kind::udp ? udpSocket("127.0.0.1", port) : connectToSink(sink.address());
    if (GetParam() == Kind::udp) {
        udpSendTo(sender.get(), "127.0.0.1", 5023, onWire(0));
    } else {
        sendAll(sender.get(), onWire(0));
    }
    ASSERT_TRUE(closing.await());
    EXPECT_TRUE(wasLockedAtClose);
    for (const auto& other : others)
        EXPECT_TRUE(other->join());
    EXPECT_THAT(callback->contents(), ElementsAre("locked"));
}

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, CallbackMayUseContainer) {
    WatchedSink sink(GetParam());
    const CallbackPointer next = new RecordingCallback(1, {});
    const CallbackPointer callback = addCallback(*sink, [&](Connection& connection) {
        VornNet::VornCallbackContainer& container = sink->getCallbackContainer();
        VornNet::VornNotificationCallback* base = next;
        container.add(base);
        container.remove(0); // it lives on until it returns
        return readToEnd(*connection) + std::to_string(container.getNewId());
    });
    deliver(sink, callback, "id ");
    EXPECT_THAT(callback->contents(), ElementsAre("id 1"));
    deliver(sink, next, "to next");
    EXPECT_THAT(next->contents(), ElementsAre("to next"));
    EXPECT_TRUE(sink->getCallbackContainer().lookup(0) == nullptr);
}

TEST_P(VornLibraryCallbackSink_DeliveryOfAnyKind, ContainerIsUsedWhileNotificationsArrive) {
    WatchedSink sink(GetParam());
    const CallbackPointer callback = addCallback(*sink);
    std::atomic<bool> ends{false};
    const auto use = [&] {
        while (!ends) {
            const CallbackPointer passing = addCallback(*sink);
            ASSERT_TRUE(sink->getCallbackContainer().lookup(passing->getId()) != nullptr);
            sink->getCallbackContainer().remove(passing->getId());
            std::this_thread::yield();
        }
    };
    WatchedThread first(use);
    WatchedThread second(use);
    for (int i = 0; i < 20; ++i)
        deliver(sink, callback, onWire(i));
    ends = true;
    EXPECT_TRUE(first.join());
    EXPECT_TRUE(second.join());
    EXPECT_EQ(callback->calls(), 20);
}
