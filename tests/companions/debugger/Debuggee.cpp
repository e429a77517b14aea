// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * The program that the debugger looks into: makes objects in all the states that are to be shown, and stops
 * in stopHere(). It is told which objects by its argument.
 */

#include "Await.h"
#include "Posix.h"

#include <VornCallbackContainer.h>
#include <VornCertificate.h>
#include <VornDispatcher.h>
#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornLogging.h>
#include <VornPipeConnection.h>
#include <VornPipeServer.h>
#include <VornProxyDependentContainer.h>
#include <VornPublisher.h>
#include <VornSSLServerSocket.h>
#include <VornSSLSocketConnection.h>
#include <VornSteadySink.h>
#include <VornSubscriber.h>
#include <VornUDPServerSocket.h>
#include <VornUDPSocketConnection.h>
#include <VornUnableToResolveNameException.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <new>
#include <string>

#include <unistd.h>

using namespace VornNet;
using VornSupport::VornEvent;
using VornSupport::VornException;
using VornSupport::VornLogging;
using VornSupport::VornNotification;
using VornSupport::VornObjectBase;
using VornSupport::VornStringToWide;
using VornSupport::VornThread;
using VornSupport::VornUString;
using VornTest::UniqueFd;

/** Where the debugger stops the program. */
extern "C" __attribute__((noinline)) void stopHere() {
    __asm__ volatile("" ::: "memory");
}

namespace {

/** Opens the protected fields that a test wants in a state of its own. */
class SocketProbe : public VornSocketConnection {
public:
    using VornSocketConnection::m_bConnected;
    using VornSocketConnection::m_pClient;
    using VornSocketConnection::VornSocketConnection;
};

class BufferProbe : public VornBufferConnection {
public:
    using VornBufferConnection::m_nInIndex;
    using VornBufferConnection::VornBufferConnection;
};

class CallbackContainerProbe : public VornCallbackContainer {
public:
    using VornCallbackContainer::m_callbackMap;
};

/** An application's callback. */
class AlarmCallback : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        m_nAlarm = static_cast<int>(spConnection->receiveLong());
    }

private:
    int m_nAlarm = 0;
};

/** An application's connection. */
class LoggedConnection : public VornPipeConnection {
public:
    using VornPipeConnection::VornPipeConnection;
    int m_nWrites = 3;
};

/** An application's counted object of no class of the library's. */
class Ticket : public VornObjectBase {
public:
    int m_nNumber = 5;
};

class IdleThread : public VornThread {
public:
    using VornThread::VornThread;
};

/** An object where there is none: memory that is full of one byte. */
template <typename T>
T* overwritten(std::array<unsigned char, 4096>& place, int nByte) {
    std::memset(place.data(), nByte, place.size());
    return reinterpret_cast<T*>(place.data());
}

/** An object of which everything after its first word has been overwritten. It is never destroyed. */
template <typename T, typename... Arguments>
T* spoiled(const Arguments&... arguments) {
    T* object = new T(arguments...);
    std::memset(reinterpret_cast<unsigned char*>(object) + sizeof(void*), 0x41, sizeof(T) - sizeof(void*));
    return object;
}

/** Keeps variables that only the debugger looks at. */
template <typename... Pointers>
void use(const Pointers*... pointers) {
    (std::printf("%p", static_cast<const void*>(pointers)), ...);
}

void requireBlocked(pid_t tid) {
    if (!VornTest::awaitBlockedInIo(tid))
        std::abort();
}

void showTexts() {
    const VornString sPlain = "pipe:quorax1f3a";
    const VornString sEmpty;
    const VornString sLong(300, 'x');
    const VornString sOdd("a\"b\\c\0d\n\xff \xc3\xa4", 12);
    const VornUString wide = VornStringToWide("caf\xc3\xa9 \xff");
    const VornUString empty;
    alignas(8) std::array<unsigned char, 4096> place{};
    const VornString& sBroken = *overwritten<VornString>(place, 0x41);
    const VornUString& broken = *overwritten<VornUString>(place, 0x41);
    alignas(8) std::array<unsigned char, 4096> lost{};
    const auto* nowhere = overwritten<VornString>(lost, 0);
    const VornString& sLost = *nowhere;
    lost[8] = 10; // ten bytes at address 0
    stopHere();
    std::printf("%zu",
                sPlain.size() + sEmpty.size() + sLong.size() + sOdd.size() + wide.size() + empty.size());
    std::printf("%p %p %p", static_cast<const void*>(&sBroken), static_cast<const void*>(&broken),
                static_cast<const void*>(&sLost));
}

void showSockets() {
    int nPort = 5023;
    const UniqueFd listener = VornTest::tcpListen("127.0.0.1", nPort);
    VornSocketConnection unused("db.example", 5023, false, false);
    unused.setServiceName("stock");
    SocketProbe client("127.0.0.1", nPort, true, false);
    client.transfer(1);
    SocketProbe connecting("127.0.0.1", nPort, true, false);
    int nDescriptor = 77;
    connecting.m_pClient = &nDescriptor;
    VornServerSocket server(5023, 5, "*");
    UniqueFd accepted = VornTest::acceptClient(listener.get());
    VornSocketConnection peer(accepted.release(), "", &server, false);
    peer.setLocalAccess(true);
    VornSocketConnection named(::dup(2), "monitor.example", nullptr, false);
    VornSSLSocketConnection secure("10.0.0.5", 443, false);
    VornSSLSocketConnection marked("10.0.0.5", 443, false);
    marked.establish();
    VornConnection& base = client;
    stopHere();
    use(&base);
    connecting.m_pClient = nullptr;
}

void showPipesAndBuffers() {
    const VornString sPath = VornPipeServer::getFullPipeName("quorax1f3a");
    ::unlink(sPath.c_str());
    const UniqueFd listener = VornTest::unixListen(sPath);
    VornPipeConnection unused("quorax1f3a");
    VornPipeConnection client("quorax1f3a");
    client.establish();
    int nDescriptor = VornTest::acceptClient(listener.get()).release();
    VornPipeConnection accepted(&nDescriptor, 7);
    accepted.setLocalAccess(true);
    VornBufferConnection empty;
    VornBufferConnection message;
    message.transfer(7L);
    message.transfer(12L);
    const long lHandle = message.receiveLong();
    std::array<char, 20> bytes{};
    VornBufferConnection received(bytes.data(), 20, "10.0.0.9");
    VornUDPSocketConnection datagram("10.0.0.5", 5024, false);
    datagram.transfer("abc");
    LoggedConnection logged("quorax2");
    VornConnection& loggedBase = logged;
    stopHere();
    use(&lHandle, &loggedBase);
}

void showServers() {
    auto* tcp = new VornServerSocket(5040, 5, "127.0.0.1");
    const VornSmartPointer<VornServerSocket> spTcp = tcp;
    auto* udp = new VornUDPServerSocket(5041, "*", 1500);
    const VornSmartPointer<VornIPCServer> spUdp = udp;
    auto* pipe = new VornPipeServer("desk");
    const VornSmartPointer<VornIPCServer> spPipe = pipe;
    VornPipeServer idlePipe("idle", 1, "vorn");
    VornPipeServer closedPipe("closed");
    closedPipe.close();
    VornServerSocket closedTcp(5042, 5, "*");
    const VornCertificate certificate("server.pem", "PEM", "/etc/my keys/server.key", "PEM");
    VornSSLServerSocket ssl(443, certificate, 5, "*");
    // The wait for the socket opens no file, which the look at the thread does, so each gets a certain
    // number.
    VornTest::WatchedThread tcpThread([&] { spTcp->waitForClient(false); });
    spTcp->waitForInit();
    requireBlocked(tcpThread.tid());
    VornTest::WatchedThread udpThread([&] { spUdp->waitForClient(false); });
    spUdp->waitForInit();
    requireBlocked(udpThread.tid());
    VornTest::WatchedThread pipeThread([&] { spPipe->waitForClient(false); });
    requireBlocked(pipeThread.tid());
    stopHere();
    spTcp->close();
    spUdp->close();
    spPipe->close();
}

void showPointers() {
    const VornSmartPointer<VornConnection> spNothing;
    const VornSmartPointer<VornConnection> spOnce = new VornPipeConnection("quorax1f3a");
    const VornSmartPointer<VornConnection> spTwice = new VornSocketConnection("10.0.0.5", 5023, true, false);
    const VornSmartPointer<VornConnection> spCopy = spTwice;
    const VornSmartPointer<VornNotificationCallback> spCallback = new AlarmCallback(3);
    const VornSmartPointer<Ticket> spTicket = new Ticket;
    const VornSmartPointer<VornIPCServer> spServer = new VornServerSocket(5023, 5, "*");
    stopHere();
}

void showCallbacks() {
    VornCallbackContainer none;
    VornCallbackContainer some;
    for (int nCount = 0; nCount < 3; ++nCount)
        some.add(new AlarmCallback(some.getNewId()));
    some.remove(1);
    some.lookup(2)->set();
    VornCallbackContainer many;
    for (int nCount = 0; nCount < 300; ++nCount)
        many.add(new AlarmCallback(many.getNewId()));
    VornCallbackContainer held;
    const VornSupport::VornCriticalSection once(held.mutex(), true);
    const VornSupport::VornCriticalSection twice(held.mutex(), true);
    VornLibraryCallbackSink sink("desk");
    sink.getCallbackContainer().add(new AlarmCallback(0));
    for (const pid_t tid : VornTest::threadIds()) {
        if (tid != VornTest::currentTid())
            requireBlocked(tid);
    }
    stopHere();
}

void showDeliveries() {
    VornSteadySink::Options options;
    options.kind = VornSteadySink::Kind::pipe;
    options.sPipeName = "desk";
    VornSteadySink steady("desk", options);
    steady.getCallbackContainer().add(new AlarmCallback(0));
    VornDispatcher idle;
    VornDispatcher dispatcher;
    VornProxyDependent nobody("pipe:nobody", 2);
    dispatcher.post(nobody, VornNotification(12));
    dispatcher.post(nobody, VornNotification(13));
    VornPublisher lonely("pipe:lonely", {"builds"});
    VornPublisher publisher("pipe:news", {"builds"});
    const auto ignore = [](VornConnection&, const VornSubscriber::Event&) {};
    VornSubscriber subscriber("pipe:news", "builds", ignore);
    VornTest::awaitCondition([&] { return publisher.statistics().nSubscribers == 1; });
    publisher.publish("builds", [](VornConnection& content) { content.transfer(5); });
    VornTest::awaitCondition([&] { return subscriber.statistics().nEvents == 1; });
    VornTest::awaitCondition([&] { return publisher.statistics().nSent == 1; });
    VornSubscriber away("pipe:nobody", "builds", ignore);
    VornTest::awaitCondition([&] { return away.status().nTries > 0; });
    const VornPosition position{0x1f, 42};
    const VornPosition nowhere;
    stopHere();
    use(&steady, &idle, &lonely, &position, &nowhere);
}

void showNoProxies() {
    const VornProxyDependentContainer& registry = VornProxyDependentContainer::getInstance();
    stopHere();
    use(&registry);
}

void showProxies() {
    VornProxyDependentContainer& registry = VornProxyDependentContainer::getInstance();
    registry.add(new VornProxyDependent("socket:10.0.0.5:5023", 2));
    registry.add(new VornProxyDependent("pipe:quorax1f3a", 9));
    registry.add(new VornProxyDependent("pipe:quorax1f3a", 3));
    const VornProxyDependentIdentifier identifier("udp:10.0.0.5:5024", -1);
    stopHere();
}

void showValues() {
    const VornNotification notification(12);
    VornException exception("VornServerSocket::init: failed to bind socket.", 98);
    const VornException plain("no \"code\"", 0);
    VornException unknown("strange", 1234);
    for (int nCount = 0; nCount < 20; ++nCount)
        unknown.pushMessage(L"message " + std::to_wstring(nCount));
    exception.pushMessage(L"while the sink was started");
    const VornUnableToResolveNameException unresolved("db.example");
    const VornCertificate certificate("server.pem", "PEM", "/etc/my keys/server.key", "PEM");
    VornEvent quiet;
    VornEvent signalled;
    signalled.set();
    IdleThread thread("worker");
    VornLogging::getInstance().setLogLevel(4);
    VornLogging& logger = VornLogging::getInstance();
    stopHere();
    logger.setLogLevel(VornLogging::cOff);
}

void showOverwritten() {
    alignas(16) std::array<unsigned char, 4096> letters{};
    alignas(16) std::array<unsigned char, 4096> zeros{};
    auto* socket = overwritten<VornSocketConnection>(letters, 0x41);
    auto* pointer = overwritten<VornSmartPointer<VornConnection>>(letters, 0x41);
    auto* callbacks = overwritten<VornCallbackContainer>(letters, 0x41);
    auto* identifier = overwritten<VornProxyDependentIdentifier>(letters, 0x41);
    auto* dispatcher = overwritten<VornDispatcher>(letters, 0x41);
    auto* publisher = overwritten<VornPublisher>(letters, 0x41);
    auto* zeroPublisher = overwritten<VornPublisher>(zeros, 0);
    auto* zeroCallbacks = overwritten<VornCallbackContainer>(zeros, 0);
    auto* zeroPointer = overwritten<VornSmartPointer<VornConnection>>(zeros, 0);
    // A word that leads into data, as the allocator leaves it in freed memory.
    static void* s_words[2] = {&s_words, &s_words};
    auto* freed = reinterpret_cast<VornSocketConnection*>(&s_words[1]);
    s_words[1] = &s_words;
    VornConnection* pNull = nullptr;
    // What remains of an object whose destructors have run.
    alignas(VornPipeConnection) std::array<unsigned char, sizeof(VornPipeConnection)> remains{};
    auto* destroyed = new (remains.data()) VornPipeConnection("quorax1f3a");
    destroyed->~VornPipeConnection();
    stopHere();
    use(socket, pointer, callbacks, identifier, zeroCallbacks, zeroPointer, freed, pNull, destroyed,
        dispatcher, publisher, zeroPublisher);
}

void showSpoiled() {
    auto* socket = spoiled<VornSocketConnection>("10.0.0.5", 5023, true, false);
    auto* pipe = spoiled<VornPipeConnection>("quorax1f3a");
    auto* buffer = spoiled<VornBufferConnection>();
    auto* server = spoiled<VornServerSocket>(5023, 5, "*");
    auto* pipeServer = spoiled<VornPipeServer>("spoiled");
    auto* callbacks = spoiled<VornCallbackContainer>();
    auto* callback = spoiled<AlarmCallback>(1);
    auto* exception = spoiled<VornException>("text", 1);
    auto* event = spoiled<VornEvent>();
    auto* thread = spoiled<IdleThread>("worker");
    auto* certificate = spoiled<VornCertificate>("a", "b", "c", "d");
    int nCell = -559038737;
    SocketProbe badCell("10.0.0.5", 5023, true, false);
    badCell.m_pClient = &nCell;
    VornSocketConnection& badCellBase = badCell;
    BufferProbe senseless;
    senseless.transfer(1);
    senseless.m_nInIndex = 9;
    VornConnection& senselessBase = senseless;
    VornSocketConnection orphan(::dup(2), "", reinterpret_cast<VornServerSocket*>(0x4141414141414141), false);
    // The tree's root becomes its own left child.
    CallbackContainerProbe circle;
    circle.add(new AlarmCallback(0));
    circle.add(new AlarmCallback(1));
    auto** root = static_cast<void**>(reinterpret_cast<void**>(&circle.m_callbackMap)[2]);
    void* const left = root[2];
    root[2] = root;
    VornCallbackContainer& circleBase = circle;
    stopHere();
    root[2] = left;
    badCell.m_pClient = nullptr;
    use(socket, pipe, buffer, server, pipeServer, callbacks, callback, exception, event, thread, certificate,
        &badCellBase, &senselessBase, &orphan, &circleBase);
}

/** Before and after a line of input, for a debugger that attaches in between. */
void showLevelTwice() {
    const auto show = [] {
        std::cout << "level " << VornLogging::getInstance().getLogLevel()
                  << (VornLogging::isAdmitted(9) ? ", admitted" : "") << std::endl;
    };
    show();
    std::string line;
    std::getline(std::cin, line);
    show();
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    // The tests expect certain descriptors, and the debugger hands some of its own on.
    ::close_range(3, ~0U, 0);
    const std::map<std::string, void (*)()> scenes = {
        {"texts", showTexts},           {"sockets", showSockets},
        {"pipes", showPipesAndBuffers}, {"servers", showServers},
        {"pointers", showPointers},     {"callbacks", showCallbacks},
        {"noproxies", showNoProxies},   {"proxies", showProxies},
        {"values", showValues},         {"overwritten", showOverwritten},
        {"spoiled", showSpoiled},       {"await", showLevelTwice},
        {"deliveries", showDeliveries}};
    const auto scene = scenes.find(argc > 1 ? argv[1] : "");
    if (scene == scenes.end())
        return 2;
    scene->second();
    return 0;
}
