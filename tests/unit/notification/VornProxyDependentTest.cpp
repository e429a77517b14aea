// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Failure.h"
#include "Interpose.h"
#include "NotificationPeer.h"
#include "Process.h"
#include "Sandbox.h"

#include <csignal>
#include <functional>
#include <stdexcept>
#include <type_traits>

#include <VornCollaborator.h>
#include <VornException.h>
#include <VornNotification.h>
#include <VornProxyDependent.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <unistd.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::IsEmpty;
using testing::Values;
using VornNet::VornConnection;
using VornNet::VornSmartPointer;
using VornSupport::VornException;
using VornSupport::VornNotification;

using Proxy = VornNet::VornProxyDependent;
using ProxyPointer = VornSmartPointer<Proxy>;

class VornProxyDependent : public NotificationTest {};

class VornProxyDependent_OfAnyKind : public NotificationTestOfKind {};

class VornProxyDependent_OnStreams : public NotificationTestOfKind {};

INSTANTIATE_TEST_SUITE_P(Kind, VornProxyDependent_OfAnyKind, Values(Kind::pipe, Kind::socket, Kind::udp),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Kind, VornProxyDependent_OnStreams, Values(Kind::pipe, Kind::socket),
                         testing::PrintToStringParamName());

/** A proxy whose content is up to the test. */
class WritingProxy : public Proxy {
public:
    using Write = std::function<void(VornConnection&, const VornNotification&)>;

    WritingProxy(const std::string& address, long handle, Write write)
        : Proxy(address, handle), m_write(std::move(write)) {}

    void addContent(VornConnection& connection, const VornNotification& notification) override {
        m_write(connection, notification);
    }

private:
    Write m_write;
};

/** Where a proxy's notifications go to: plain sockets, not a sink. */
class Receiver {
public:
    explicit Receiver(Kind kind, int port = 0) : m_kind(kind), m_port(port) {
        switch (kind) {
        case Kind::pipe:
            m_fd = unixListen(pipePath("receiver"), 100);
            break;
        case Kind::socket:
            m_fd = tcpListen("0.0.0.0", m_port, 100);
            break;
        case Kind::udp:
            m_fd = udpSocket("0.0.0.0", m_port);
            break;
        }
    }

    std::string address() const { return addressWith("127.0.0.1"); }

    std::string addressWith(const std::string& host) const {
        return m_kind == Kind::pipe ? "pipe:receiver"
                                    : nameOf(m_kind) + ":" + host + ":" + std::to_string(m_port);
    }

    int port() const { return m_port; }

    int fd() const { return m_fd.get(); }

    UniqueFd accept() const { return acceptClient(m_fd.get()); }

    /** All of the next notification, in hexadecimal. */
    std::string next() const {
        return hex(m_kind == Kind::udp ? receiveDatagram(m_fd.get()) : receiveToEnd(accept().get()));
    }

    /** Whether anything is waiting. */
    bool isEmpty() const {
        pollfd entry = {m_fd.get(), POLLIN, 0};
        return ::poll(&entry, 1, 0) == 0;
    }

private:
    Kind m_kind;
    int m_port;
    UniqueFd m_fd;
};

ProxyPointer makeProxy(const std::string& address, long handle = 7) {
    return new Proxy(address, handle);
}

ProxyPointer makeProxy(const std::string& address, WritingProxy::Write write) {
    return new WritingProxy(address, 7, std::move(write));
}

/** Notifies, and tells text and code of the failure. */
std::string textAndCode(const ProxyPointer& proxy) {
    return thrownBy([&] { proxy->remoteNotify(VornNotification(12)); });
}

std::string handleAndId(long handle, long id) {
    return hex(onWire(handle) + onWire(id));
}

/** How often the library has begun to talk to anybody. */
int socketsMade(const CallTrace& trace) {
    return trace.calls("socket");
}

} // namespace

static_assert(!std::is_default_constructible_v<Proxy>);
static_assert(!std::is_copy_constructible_v<Proxy>);
static_assert(!std::is_copy_assignable_v<Proxy>);

/** Notifies a receiver which is gone when the content is written, under the setting of SIGPIPE in args. */
KIT_ROLE(writerToClosedPipe) {
    std::signal(SIGPIPE, args.at(0) == "default" ? SIG_DFL : SIG_IGN);
    const Receiver receiver(Kind::pipe);
    const ProxyPointer proxy =
        makeProxy(receiver.address(), [&](VornConnection& connection, const VornNotification&) {
            receiveExactly(receiver.accept().get(), 8);
            connection.transfer(1L);
        });
    std::printf("%s\n", textAndCode(proxy).c_str());
    return 0;
}

TEST_F(VornProxyDependent, KeepsWhatItIsGiven) {
    CallTrace trace;
    const ProxyPointer proxy = makeProxy("pipe:quorax1f3a", 7);
    EXPECT_EQ(proxy->getRemoteName(), "pipe:quorax1f3a");
    EXPECT_EQ(proxy->getDependentHandle(), 7);
    EXPECT_EQ(proxy->getClassName(), "VornNet::VornProxyDependent");
    EXPECT_EQ(socketsMade(trace), 0) << "nothing is connected before there is something to tell";
}

TEST_F(VornProxyDependent, HandleIsReportedAsInt) {
    EXPECT_EQ(makeProxy("", -1)->getDependentHandle(), -1);
    EXPECT_EQ(makeProxy("", 4294967295L)->getDependentHandle(), -1);
    EXPECT_EQ(makeProxy("", 4294967296L + 5)->getDependentHandle(), 5);
}

TEST_P(VornProxyDependent_OfAnyKind, NumbersTravelWithTheirLow32Bits) {
    const Receiver receiver(GetParam());
    makeProxy(receiver.address(), 7)->remoteNotify(VornNotification(12));
    EXPECT_EQ(receiver.next(), "00 00 00 07 00 00 00 00 00 00 00 0c 00 00 00 00");
    makeProxy(receiver.address(), -1)->remoteNotify(VornNotification(-5));
    EXPECT_EQ(receiver.next(), "ff ff ff ff 00 00 00 00 ff ff ff fb 00 00 00 00");
    makeProxy(receiver.address(), 4294967296L + 5)->remoteNotify(VornNotification(2147483647));
    EXPECT_EQ(receiver.next(), "00 00 00 05 00 00 00 00 7f ff ff ff 00 00 00 00");
    makeProxy(receiver.address(), 0)->remoteNotify(VornNotification(-2147483647 - 1));
    EXPECT_EQ(receiver.next(), "00 00 00 00 00 00 00 00 80 00 00 00 00 00 00 00");
    EXPECT_TRUE(receiver.isEmpty());
}

TEST_P(VornProxyDependent_OfAnyKind, EachNotificationHasItsOwnConnectionAndLooksNothingUp) {
    const Receiver receiver(GetParam());
    const ProxyPointer proxy = makeProxy(receiver.address());
    CallTrace trace;
    for (int id = 0; id < 3; ++id)
        proxy->remoteNotify(VornNotification(id));
    EXPECT_EQ(socketsMade(trace), 3);
    EXPECT_EQ(trace.calls("gethostbyaddr_r") + trace.calls("gethostbyname_r"), 0);
    for (int id = 0; id < 3; ++id)
        EXPECT_EQ(receiver.next(), handleAndId(7, id));
}

TEST_P(VornProxyDependent_OnStreams, NobodyNeedAcceptOrAnswer) {
    const Receiver receiver(GetParam());
    const int before = openDescriptors();
    makeProxy(receiver.address())->remoteNotify(VornNotification(12));
    EXPECT_EQ(openDescriptors(), before) << "it is closed before anybody has accepted it";
}

TEST_P(VornProxyDependent_OfAnyKind, SeveralThreadsMayUseOneProxy) {
    constexpr int threads = 4;
    constexpr int each = 25;
    const Receiver receiver(GetParam());
    const ProxyPointer proxy = makeProxy(receiver.address());
    std::vector<std::unique_ptr<WatchedThread>> notifiers;
    for (int i = 0; i < threads; ++i) {
        notifiers.push_back(std::make_unique<WatchedThread>([&proxy, i] {
            for (int id = 0; id < each; ++id)
                proxy->remoteNotify(VornNotification(i * each + id));
        }));
    }
    std::vector<std::string> received;
    std::vector<std::string> expected;
    for (int id = 0; id < threads * each; ++id) {
        received.push_back(receiver.next());
        expected.push_back(handleAndId(7, id));
    }
    for (const auto& notifier : notifiers) {
        EXPECT_TRUE(notifier->join());
        EXPECT_EQ(notifier->exceptionText().value_or("none"), "none");
    }
    EXPECT_THAT(received, testing::UnorderedElementsAreArray(expected));
}

// Content.

TEST_P(VornProxyDependent_OfAnyKind, OverriddenContentFollowsHandle) {
    const Receiver receiver(GetParam());
    const ProxyPointer proxy =
        makeProxy(receiver.address(), [](VornConnection& connection, const VornNotification& notification) {
            connection.transfer(static_cast<long>(notification.getId()));
            connection.transfer(VornSupport::VornString("file.txt"));
        });
    proxy->remoteNotify(VornNotification(12));
    EXPECT_EQ(receiver.next(), handleAndId(7, 12) + " " + hex(bytes("00 00 00 08") + "file.txt"));
}

TEST_P(VornProxyDependent_OfAnyKind, ContentIsWrittenForTheCallersNotification) {
    const Receiver receiver(GetParam());
    const VornNotification notification(12);
    const VornNotification* seen = nullptr;
    std::string className;
    makeProxy(receiver.address(), [&](VornConnection& connection, const VornNotification& given) {
        seen = &given;
        className = connection.getClassName();
    })->remoteNotify(notification);
    EXPECT_EQ(seen, &notification);
    EXPECT_EQ(className, GetParam() == Kind::pipe     ? "VornNet::VornPipeConnection"
                         : GetParam() == Kind::socket ? "VornNet::VornSocketConnection"
                                                      : "VornNet::VornUDPSocketConnection");
}

TEST_P(VornProxyDependent_OnStreams, HandleIsSentBeforeContentIsAskedFor) {
    const Receiver receiver(GetParam());
    std::string early;
    makeProxy(receiver.address(), [&](VornConnection&, const VornNotification&) {
        early = hex(receiveExactly(receiver.accept().get(), 8));
    })->remoteNotify(VornNotification(12));
    EXPECT_EQ(early, hex(onWire(7)));
}

TEST_F(VornProxyDependent, DatagramIsSentWhenContentIsComplete) {
    const Receiver receiver(Kind::udp);
    bool wasEmpty = false;
    makeProxy(receiver.address(), [&](VornConnection& connection, const VornNotification&) {
        connection.transfer(static_cast<short>(1));
        wasEmpty = receiver.isEmpty();
    })->remoteNotify(VornNotification(12));
    EXPECT_TRUE(wasEmpty);
    EXPECT_EQ(receiver.next(), hex(onWire(7) + bytes("00 01")));
    EXPECT_TRUE(receiver.isEmpty());
}

TEST_F(VornProxyDependent, AsDependentDoesNothing) {
    const Receiver receiver(Kind::pipe);
    const ProxyPointer proxy = makeProxy(receiver.address());
    VornSupport::VornCollaborator collaborator;
    collaborator.addDependent(*proxy);
    collaborator.notify(VornNotification(12));
    proxy->handleNotification(collaborator, VornNotification(12));
    collaborator.removeDependent(*proxy);
    EXPECT_TRUE(receiver.isEmpty());
}

// Addresses.

TEST_F(VornProxyDependent, SeparatorOfPipe_IsNotLookedAt) {
    const Receiver receiver(Kind::pipe);
    for (const char* address : {"pipe:receiver", "pipe/receiver", "pipe receiver", "pipereceiver"}) {
        const std::string text = address;
        if (text != "pipereceiver") {
            makeProxy(text)->remoteNotify(VornNotification(12));
            EXPECT_EQ(receiver.next(), handleAndId(7, 12)) << text;
        }
    }
    const UniqueFd cut = unixListen(pipePath("ine"));
    makeProxy("pipeline")->remoteNotify(VornNotification(12));
    EXPECT_EQ(hex(receiveToEnd(acceptClient(cut.get()).get())), handleAndId(7, 12));
    ::unlink(pipePath("ine").c_str());
}

TEST_F(VornProxyDependent, PipeNameIsEverythingBehindSeparator) {
    const UniqueFd fd = unixListen(pipePath("a:b:1"));
    makeProxy("pipe:a:b:1")->remoteNotify(VornNotification(12));
    EXPECT_EQ(hex(receiveToEnd(acceptClient(fd.get()).get())), handleAndId(7, 12));
    ::unlink(pipePath("a:b:1").c_str());
}

/** An address with PORT where the port of the receiver is to stand, or just its port. */
struct AddressCase {
    const char* text;
    int port = 0;
};

void PrintTo(const AddressCase& value, std::ostream* out) {
    *out << value.text;
}

class VornProxyDependent_WithAddress : public NotificationTest,
                                       public testing::WithParamInterface<AddressCase> {};

INSTANTIATE_TEST_SUITE_P(
    Text, VornProxyDependent_WithAddress,
    Values(AddressCase{"socket:127.0.0.1:5023", 5023}, AddressCase{"socket/127.0.0.1:5023", 5023},
           AddressCase{"sockets127.0.0.1:5023", 5023}, AddressCase{"socket:localhost:5023", 5023},
           AddressCase{"socket:127.1:5023", 5023}, AddressCase{"socket:0.0.0.0:5023", 5023},
           AddressCase{"socket:127.0.0.1:5023abc", 5023}, AddressCase{"socket:127.0.0.1:5023:99", 5023},
           AddressCase{"socket:127.0.0.1: +5023", 5023}, AddressCase{"socket:127.0.0.1:70000", 4464},
           AddressCase{"socket:127.0.0.1:-32768", 32768}, AddressCase{"socket:127.0.0.1:-1", 65535},
           AddressCase{"socket:127.0.0.1", 127}, AddressCase{"socket:no-such-host.invalid:5023", 5023},
           AddressCase{"udp:127.0.0.1:5023", 5023}, AddressCase{"udpx127.0.0.1:5023", 5023},
           AddressCase{"udp:localhost:5023", 5023}, AddressCase{"udp:127.1:5023", 5023},
           AddressCase{"udp:127.0.0.1:5023abc", 5023}, AddressCase{"udp:127.0.0.1:70000", 4464},
           AddressCase{"udp:127.0.0.1:-32768", 32768}, AddressCase{"udp:127.0.0.1", 127},
           AddressCase{"udp:no-such-host.invalid:5023", 5023}));

TEST_P(VornProxyDependent_WithAddress, Reaches) {
    const Receiver receiver(*GetParam().text == 'u' ? Kind::udp : Kind::socket, GetParam().port);
    makeProxy(GetParam().text)->remoteNotify(VornNotification(12));
    EXPECT_EQ(receiver.next(), handleAndId(7, 12));
}

class VornProxyDependent_WithUnknownAddress : public NotificationTest,
                                              public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Text, VornProxyDependent_WithUnknownAddress,
                         Values("", "tcp:host:1", "u", "ud", "pip", "sock", "ss", "Pipe:receiver",
                                "UDP:127.0.0.1:5023", "Socket:127.0.0.1:5023", "SSL:127.0.0.1:5023",
                                " pipe:receiver", ":", "127.0.0.1:5023"));

TEST_P(VornProxyDependent_WithUnknownAddress, DoesNothing) {
    bool wasAsked = false;
    const ProxyPointer proxy =
        makeProxy(GetParam(), [&](VornConnection&, const VornNotification&) { wasAsked = true; });
    LogCapture log;
    CallTrace trace;
    EXPECT_NO_THROW(proxy->remoteNotify(VornNotification(12)));
    EXPECT_EQ(socketsMade(trace), 0);
    EXPECT_FALSE(wasAsked);
    EXPECT_THAT(log.records(), IsEmpty());
}

class VornProxyDependent_WithCutAddress : public NotificationTest,
                                          public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Text, VornProxyDependent_WithCutAddress, Values("pipe", "udp", "socket", "ssl"));

TEST_P(VornProxyDependent_WithCutAddress, ThrowsOutOfRange) {
    CallTrace trace;
    EXPECT_THROW(makeProxy(GetParam())->remoteNotify(VornNotification(12)), std::out_of_range);
    EXPECT_EQ(socketsMade(trace), 0);
}

// Failures.

TEST_F(VornProxyDependent, WhereNobodyListens_ConnectingFails) {
    unixListen(pipePath("left")).reset();
    const std::string pipe = "VornPipeConnection::establish: connection request failed. ";
    const std::string tcp = "VornSocketConnection::establish: connection request failed. ";
    const std::pair<const char*, std::string> rows[] = {
        {"pipe:nobody", pipe + "2"},
        {"pipe:left", pipe + "111"},
        {"pipe:", pipe + "111"},
        {"socket:127.0.0.1:5023", tcp + "111"},
        {"socket:127.0.0.1:abc", tcp + "111"}, // no digits are port 0
        {"socket:127.0.0.1:", tcp + "111"},
        {"socket:localhost", tcp + "111"},
        {"socket:", tcp + "101"}, // what is no host is the broadcast address
        {"socket::5023", tcp + "101"},
        {"socket:1.2.3.400:5023", tcp + "101"},
    };
    for (const auto& [address, failure] : rows)
        EXPECT_EQ(textAndCode(makeProxy(address)), failure) << address;
    ::unlink(pipePath("left").c_str());
}

TEST_F(VornProxyDependent, UdpWithoutReceiver_IsNoFailure) {
    EXPECT_EQ(textAndCode(makeProxy("udp:127.0.0.1:5023")), "nothing");
}

TEST_F(VornProxyDependent, UdpThatCannotBeSent_IsLoggedOnly) {
    LogCapture log;
    expectDescriptorLeak(4);
    int sent = 0;
    for (const char* address : {"udp:", "udpx", "udp::5023", "udp:127.0.0.1:abc"}) {
        EXPECT_EQ(textAndCode(makeProxy(address)), "nothing") << address;
        ++sent;
        EXPECT_EQ(log.count("VornUDPSocketConnection::transmit: failed to send data"), sent) << address;
    }
}

TEST_F(VornProxyDependent, UdpContentAboveADatagram_IsLoggedOnly) {
    const Receiver receiver(Kind::udp);
    LogCapture log(1);
    expectDescriptorLeak(1);
    const std::string large(70000, 'x');
    const ProxyPointer proxy =
        makeProxy(receiver.address(), [&](VornConnection& connection, const VornNotification&) {
            connection.transfer(VornSupport::VornString(large));
        });
    EXPECT_EQ(textAndCode(proxy), "nothing");
    EXPECT_TRUE(receiver.isEmpty());
    EXPECT_TRUE(log.contains(1, "failed to send data (rc:90) to 127.0.0.1"));
}

TEST_P(VornProxyDependent_OfAnyKind, FailedContent_PassesAfterConnectionIsGone) {
    const Receiver receiver(GetParam());
    const int before = openDescriptors();
    const ProxyPointer proxy = makeProxy(receiver.address(), [](VornConnection&, const VornNotification&) {
        throw VornException("no content", 4711);
    });
    EXPECT_EQ(textAndCode(proxy), "no content 4711");
    EXPECT_EQ(openDescriptors(), before);
    if (GetParam() != Kind::udp) {
        EXPECT_EQ(receiver.next(), hex(onWire(7)));
    }
    EXPECT_TRUE(receiver.isEmpty());
}

TEST_P(VornProxyDependent_OfAnyKind, ForeignExceptionOfContent_Passes) {
    const Receiver receiver(GetParam());
    const ProxyPointer proxy = makeProxy(receiver.address(), [](VornConnection&, const VornNotification&) {
        throw std::runtime_error("not of the library");
    });
    EXPECT_THROW(proxy->remoteNotify(VornNotification(12)), std::runtime_error);
}

TEST_F(VornProxyDependent, ReceiverThatIsGone_FailsOrKillsAsSigpipeIsSet) {
    ChildProcess ignoring = ChildProcess::spawnRole("writerToClosedPipe", "ignore");
    EXPECT_EQ(ignoring.readAllOutput(), "VornConnection::put: transfer failed. 32\n");
    EXPECT_EQ(ignoring.wait(), 0);
    ChildProcess careless = ChildProcess::spawnRole("writerToClosedPipe", "default");
    EXPECT_EQ(careless.readAllOutput(), "");
    EXPECT_EQ(careless.wait(), 128 + SIGPIPE);
}

TEST_P(VornProxyDependent_OnStreams, FullQueue_BlocksUntilSomebodyAccepts) {
    int port = 0;
    const UniqueFd listener =
        GetParam() == Kind::pipe ? unixListen(pipePath("narrow"), 0) : tcpListen("127.0.0.1", port, 0);
    const ProxyPointer proxy =
        makeProxy(GetParam() == Kind::pipe ? "pipe:narrow" : "socket:127.0.0.1:" + std::to_string(port));
    proxy->remoteNotify(VornNotification(1));
    WatchedThread second([&] { proxy->remoteNotify(VornNotification(2)); });
    EXPECT_TRUE(awaitBlockedInIo(second.tid()));
    EXPECT_FALSE(second.finished());
    EXPECT_EQ(hex(receiveToEnd(acceptClient(listener.get()).get())), handleAndId(7, 1));
    EXPECT_EQ(hex(receiveToEnd(acceptClient(listener.get()).get())), handleAndId(7, 2));
    EXPECT_TRUE(second.join());
}

// SSL: an address of this kind is understood, and nothing can be sent to it.

TEST_F(VornProxyDependent, SslIsNeverConnected) {
    const Receiver receiver(Kind::socket);
    CallTrace trace;
    for (const std::string& address :
         {receiver.addressWith("127.0.0.1").replace(0, 6, "ssl"), std::string("ssl:host:1"),
          std::string("ssl:"), std::string("sslx"), std::string("ssl:10.0.0.5")}) {
        EXPECT_EQ(textAndCode(makeProxy(address)), "VornConnection::put: transfer failed. 107") << address;
    }
    EXPECT_EQ(socketsMade(trace), 0);
    EXPECT_EQ(trace.calls("gethostbyname_r"), 0);
    EXPECT_TRUE(receiver.isEmpty());
}
