// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornPipeServer.h"

#include "Descriptor.h"
#include "GroupId.h"
#include "PipeAddress.h"
#include "ServerRegistry.h"
#include "VornPipeConnection.h"

#include <Cancellation.h>
#include <ForkHandlers.h>
#include <IntrusiveList.h>
#include <LogRecord.h>
#include <NeverDestroyed.h>
#include <Probe.h>
#include <SharedField.h>
#include <SystemCalls.h>
#include <VornException.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace VornNet {

namespace {

constexpr const char* cCreateFailed = "VornPipeServer::init: failed to create pipe.";
constexpr const char* cPrepareFailed = "VornPipeServer::init: failed to prepare pipe.";
constexpr const char* cListenFailed = "VornPipeServer::init: failed to listen on bound pipe.";

// Texts of the wait; their trailing blanks belong to them.
constexpr const char* cNotSetUp = "VornPipeServer::waitForClient: pipe not setup. ";
constexpr const char* cReadFailed = "VornPipeServer::waitForClient: pipe read error. ";
constexpr const char* cConnectionFailed = "VornPipeServer::waitForClient: connection error. ";
constexpr const char* cSelectFailed = "VornPipeServer::waitForClient: error on select. ";

constexpr int cBacklog = 5;
constexpr mode_t cOwnerOnly = 0700;
constexpr mode_t cOwnerAndGroup = 0770;
constexpr unsigned int cGroupPrivilege = 1;

void bindTo(int fd, const VornString& sPath) {
    const PipeAddress address(sPath);
    if (!address.fits())
        throw VornException(cPrepareFailed, ENAMETOOLONG);
    System::unlink(sPath.c_str());
    // bind() creates the file with the socket's mode, so it is never open to others, whatever the umask.
    System::fchmod(fd, cOwnerOnly);
    if (System::bind(fd, address.get(), address.length()) == -1)
        throw VornException(cPrepareFailed, errno);
    if (System::listen(fd, cBacklog) == -1)
        throw VornException(cListenFailed, errno);
    System::chmod(sPath.c_str(), cOwnerAndGroup);
}

void giveToGroup(const VornString& sPath, const VornString& sGroup) {
    const std::optional<gid_t> id = findGroup(sGroup);
    if (id) [[maybe_unused]]
        const int ignored = System::chown(sPath.c_str(), System::getuid(), *id);
    logRecord(VornLogging::cDebug,
              id ? "VornPipeServer::init () : successfully granted rw access to the NamedPipe for OS Group : "
                 : "VornPipeServer::init () : failed to grant rw access to the NamedPipe for OS Group : ",
              sGroup);
}

struct Readiness {
    bool failed;
    bool wakeUp;
    bool client;
};

Readiness awaitBySelect(int wakeUp, int listener) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(wakeUp, &readable);
    FD_SET(listener, &readable);
    if (System::select(FD_SETSIZE, &readable, nullptr, nullptr, nullptr) < 1)
        return {true, false, false};
    return {false, FD_ISSET(wakeUp, &readable) != 0, FD_ISSET(listener, &readable) != 0};
}

Readiness awaitByPoll(int wakeUp, int listener) {
    std::array<pollfd, 2> entries{{{wakeUp, POLLIN, 0}, {listener, POLLIN, 0}}};
    if (System::poll(entries.data(), entries.size(), -1) < 1)
        return {true, false, false};
    return {false, entries[0].revents != 0, entries[1].revents != 0};
}

Readiness awaitReadiness(int wakeUp, int listener) {
    // A descriptor of 1024 or more would be written outside select()'s set.
    return std::max(wakeUp, listener) < FD_SETSIZE ? awaitBySelect(wakeUp, listener)
                                                   : awaitByPoll(wakeUp, listener);
}

void signalWaiter(int writeEnd) {
    // One signal is enough to wake the thread; a pipe that is full of signals must not block the closing
    // thread.
    pollfd entry{writeEnd, POLLOUT, 0};
    if (System::poll(&entry, 1, 0) == 1 && (entry.revents & POLLOUT) != 0) {
        const int nSignal = 0;
        [[maybe_unused]] const ssize_t ignored = System::write(writeEnd, &nSignal, sizeof nSignal);
    }
}

/**
 * Has a record at level 9 written without the lock, because a log handler may use the server.
 * @return whether there was one to write. Then what the lock guards may differ now
 */
bool announce(std::unique_lock<std::mutex>& lock, void (*writeRecord)()) {
    if (!VornLogging::isAdmitted(VornLogging::cDebug))
        return false;
    lock.unlock();
    writeRecord();
    lock.lock();
    return true;
}

} // namespace

/*
 * A pipe server closes by another protocol than TCP and UDP servers (see ServerGate), because its close()
 * does not wait: it wakes the waiting thread through a pipe, and that thread releases what the server holds
 * by a close() of its own.
 *
 * The registry's lock guards each record's waiting flag together with the server's pointer to the record: a
 * closing thread must not release the record between a waiting thread's look at the pointer and its raising
 * of the flag. The server's own lock cannot do it, since it is held over everything that close() does and the
 * waiting thread takes it there.
 */

/** Marks the server's record as waited on; nobody releases it until the mark is gone. */
class VornPipeServer::Waiting : public IntrusiveList<Waiting>::Link {
public:
    explicit Waiting(void* const& pipeHandle) : m_thread(std::this_thread::get_id()) {
        const std::lock_guard lock(ServerRegistry::lock());
        m_pPipe = static_cast<_pipe*>(readShared(pipeHandle));
        if (m_pPipe == nullptr)
            return;
        m_pPipe->m_bClientWaiting = true;
        s_all.add(*this);
    }

    ~Waiting() { end(); }

    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

    _pipe* record() const { return m_pPipe; }

    void end() {
        if (!isListed())
            return;
        const std::lock_guard lock(ServerRegistry::lock());
        m_pPipe->m_bClientWaiting = false;
        s_all.remove(*this);
    }

    /** @return whether the calling thread waits on the record, and is in a signal handler. */
    static bool isByThisThread(const void* pipe) {
        const std::lock_guard lock(ServerRegistry::lock());
        return s_all.find([pipe, self = std::this_thread::get_id()](const Waiting& waiting) {
            return waiting.m_pPipe == pipe && waiting.m_thread == self;
        }) != nullptr;
    }

private:
    friend class Releasing;

    _pipe* m_pPipe;
    std::thread::id m_thread;
    static inline constinit IntrusiveList<Waiting> s_all; // under the lock
};

/**
 * A waiting thread that has been woken by close() and now releases the record. Until that is over no other
 * thread releases the record, so that it cannot find the server unused and open it again or destroy it under
 * the call. No lock is held meanwhile: a derived class may have one of its own in close().
 */
class VornPipeServer::Releasing : public IntrusiveList<Releasing>::Link {
public:
    explicit Releasing(const VornPipeServer* server)
        : m_server(server), m_thread(std::this_thread::get_id()) {
        const std::lock_guard lock(ServerRegistry::lock());
        s_all.add(*this);
    }

    ~Releasing() {
        const std::lock_guard lock(ServerRegistry::lock());
        s_all.remove(*this);
        ended().notify_all();
    }

    Releasing(const Releasing&) = delete;
    Releasing& operator=(const Releasing&) = delete;

    /** @return whether the record is left to another thread than the calling one; under the lock. */
    static bool isLeftToAnother(const VornPipeServer* server) {
        bool isLeft = false;
        for (const Releasing& one : s_all) {
            if (one.m_server != server)
                continue;
            if (one.m_thread == std::this_thread::get_id())
                return false;
            isLeft = true;
        }
        return isLeft;
    }

    /** Waits until no other thread is releasing the record, but not forever. */
    static void await(const VornPipeServer* server) {
        std::unique_lock lock(ServerRegistry::lock());
        ended().wait_for(lock, std::chrono::seconds(10), [server] { return !isLeftToAnother(server); });
    }

private:
    /** Servers may be closed while static objects are being destroyed. */
    static std::condition_variable& ended() {
        static NeverDestroyed<std::condition_variable> instance;
        return instance.object;
    }

    static void startAfresh() {
        makeAnew(ended());
        s_all.clear();
        Waiting::s_all.clear();
    }

    const VornPipeServer* m_server;
    std::thread::id m_thread;
    static inline constinit IntrusiveList<Releasing> s_all; // under the lock
    static const ForkHandlers s_forkHandlers;
};

const ForkHandlers VornPipeServer::Releasing::s_forkHandlers([] {}, [] {}, startAfresh);

VornPipeServer::VornPipeServer(const VornString& sPipeName) : VornPipeServer(sPipeName, 7, VornString()) {}

VornPipeServer::VornPipeServer(const VornString& sPipeName, unsigned int iAccessPrivileges,
                               const VornString& sUserGroupName)
    : m_sPipeName(sPipeName), m_pipeHandle(nullptr), m_iAccessPrivileges(iAccessPrivileges),
      m_sUserGroupName(sUserGroupName) {
    ServerRegistry::add(*this, m_pipeHandle, [](VornIPCServer& server) {
        releaseRecord(static_cast<VornPipeServer&>(server).m_pipeHandle);
    });
    try {
        VornPipeServer::init();
    } catch (...) {
        ServerRegistry::remove(*this);
        throw;
    }
}

VornPipeServer::~VornPipeServer() {
    constexpr int cMostPauses = 40;
    constexpr useconds_t cPause = 250'000;
    const CancellationOff noCancellation;
    VornPipeServer::close();
    // In a signal handler on the waiting thread nobody else will release the record.
    if (record() != nullptr && !Waiting::isByThisThread(record())) {
        for (int i = 0; i < cMostPauses && record() != nullptr; ++i)
            System::usleep(cPause);
    }
    // The waiting thread that has just released the record may still be on its way out of close(). A record
    // that is still held after 10 seconds is abandoned rather than freed under a thread that may use it.
    if (record() == nullptr)
        Releasing::await(this);
    ServerRegistry::remove(*this);
}

void VornPipeServer::waitForInit() {}

void VornPipeServer::close() {
    const CancellationOff noCancellation;
    logRecord(VornLogging::cDebug, "VornPipeServer::close");
    const VornCriticalSection lock(m_lock, true);
    std::unique_lock registryLock(ServerRegistry::lock());
    const auto releasing = [] {
        logRecord(VornLogging::cDebug, "VornPipeServer::close: releasing resources");
    };
    if (isReleasable() && (!announce(registryLock, releasing) || isReleasable())) {
        // Under the lock: the child of a fork that came now would hold the descriptors and not know them.
        VORN_PROBE(server__closed, "pipe", m_sPipeName.c_str(), 0);
        releaseRecord(m_pipeHandle);
        // The next record may get the same place in memory.
        ServerRegistry::entryOf(*this).inherited = nullptr;
        return;
    }
    if (isSignalable()) {
        announce(registryLock,
                 [] { logRecord(VornLogging::cDebug, "VornPipeServer::close: signaling wait thread"); });
        if (const _pipe* pPipe = record())
            signalWaiter(pPipe->m_hRWPipe[1]);
    }
}

VornString VornPipeServer::getFullPipeName(const VornString& sPipeName) {
    return PipeAddress::pathOf(sPipeName);
}

VornSmartPointer<VornConnection>
VornPipeServer::waitForClientImpl(bool /*bIdentify*/, VornString& sExceptionMessage, int& nErrorCode) {
    try {
        init();
        if (ServerRegistry::isInChild())
            takeOver();
    } catch (const VornException& e) {
        sExceptionMessage = e.getText();
        nErrorCode = e.getCode();
        return {};
    }
    Waiting waiting(m_pipeHandle);
    if (waiting.record() == nullptr) {
        sExceptionMessage = cNotSetUp;
        return {};
    }
    const int nWakeUp = waiting.record()->m_hRWPipe[0];
    const int nListener = waiting.record()->m_hClientPipe;
    logRecord(VornLogging::cDebug, "VornPipeServer::waitForClient: ", m_sPipeName,
              " ready, accepting connections... (", nListener, ")");
    const Readiness ready = awaitReadiness(nWakeUp, nListener);
    if (ready.failed) {
        sExceptionMessage = cReadFailed;
        return {};
    }
    if (ready.wakeUp) // before the clients: none is accepted while the server is closed
        return shutDown(waiting);
    if (ready.client)
        return acceptClient(waiting, sExceptionMessage, nErrorCode);
    sExceptionMessage = cSelectFailed;
    nErrorCode = 0;
    return {};
}

void VornPipeServer::init() {
    if (record() != nullptr)
        return;
    auto record = std::make_unique<_pipe>();
    record->m_bClientWaiting = false;
    if (System::pipe(record->m_hRWPipe) == -1)
        throw VornException(cCreateFailed, errno);
    Descriptor readEnd(record->m_hRWPipe[0]);
    Descriptor writeEnd(record->m_hRWPipe[1]);
    Descriptor listener(System::socket(AF_UNIX, SOCK_STREAM, 0));
    if (!listener.isOpen())
        throw VornException(cCreateFailed, errno);

    const VornString sPath = PipeAddress::pathOf(m_sPipeName);
    bindTo(listener.number(), sPath);
    if (m_iAccessPrivileges == cGroupPrivilege && !m_sUserGroupName.empty())
        giveToGroup(sPath, m_sUserGroupName);

    record->m_hRWPipe[0] = readEnd.release();
    record->m_hRWPipe[1] = writeEnd.release();
    record->m_hClientPipe = listener.release();
    VORN_PROBE(server__opened, "pipe", m_sPipeName.c_str(), 0, record->m_hClientPipe);
    writeShared(m_pipeHandle, record.release());
}

const VornPipeServer::_pipe* VornPipeServer::record() const {
    return static_cast<const _pipe*>(readShared(m_pipeHandle));
}

bool VornPipeServer::isReleasable() const {
    const _pipe* pPipe = record();
    // After a fork the parent's thread waits on the record, and what wakes it would wake it there.
    return pPipe != nullptr && (ServerRegistry::isInherited(*this) ||
                                (!pPipe->m_bClientWaiting && !Releasing::isLeftToAnother(this)));
}

bool VornPipeServer::isSignalable() const {
    const _pipe* pPipe = record();
    return pPipe != nullptr && pPipe->m_bClientWaiting;
}

void VornPipeServer::takeOver() {
    const CancellationOff noCancellation;
    const std::lock_guard lock(ServerRegistry::lock());
    if (!ServerRegistry::isInherited(*this))
        return;
    // The wake-up pipe is the parent's too: what is written to it would wake the parent's thread.
    auto* pPipe = static_cast<_pipe*>(m_pipeHandle);
    int ends[2];
    if (System::pipe(ends) == -1)
        throw VornException(cCreateFailed, errno);
    Descriptor readEnd(ends[0]);
    Descriptor writeEnd(ends[1]);
    System::close(pPipe->m_hRWPipe[0]);
    System::close(pPipe->m_hRWPipe[1]);
    pPipe->m_hRWPipe[0] = readEnd.release();
    pPipe->m_hRWPipe[1] = writeEnd.release();
    pPipe->m_bClientWaiting = false;
    ServerRegistry::entryOf(*this).inherited = nullptr;
}

void VornPipeServer::releaseRecord(void*& pipeHandle) {
    const std::unique_ptr<_pipe> pPipe(static_cast<_pipe*>(pipeHandle));
    writeShared(pipeHandle, nullptr);
    System::close(pPipe->m_hClientPipe);
    System::close(pPipe->m_hRWPipe[0]);
    System::close(pPipe->m_hRWPipe[1]);
}

VornSmartPointer<VornConnection> VornPipeServer::shutDown(Waiting& waiting) {
    logRecord(VornLogging::cDebug, "VornPipeServer::waitForClient : Shutting down thread");
    const Releasing releasing(this);
    waiting.end();
    close(); // releases the record, now that no thread waits
    return {};
}

VornSmartPointer<VornConnection> VornPipeServer::acceptClient(Waiting& waiting, VornString& sExceptionMessage,
                                                              int& nErrorCode) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    const int nListener = waiting.record()->m_hClientPipe;
    const int nAccepted = System::accept(nListener, reinterpret_cast<sockaddr*>(&address), &length);
    const int nError = errno;
    Descriptor client(nAccepted);
    logRecord(VornLogging::cDebug, "VornPipeServer::waitForClient: ", m_sPipeName,
              " returned from accept with clientSocket=", nAccepted);
    if (!client.isOpen()) {
        if (nListener == 0) // kept: a listener of number 0 counts as one that was closed
            return shutDown(waiting);
        nErrorCode = nError;
        sExceptionMessage = cConnectionFailed;
        return {};
    }
    int nClient = client.number();
    VornSmartPointer<VornConnection> spClient = new VornPipeConnection(&nClient, m_iAccessPrivileges);
    VORN_PROBE(connection__accepted, "pipe", m_sPipeName.c_str(), 0, nClient);
    client.release();
    waiting.end();
    spClient->setLocalAccess(true);
    return spClient;
}

} // namespace VornNet
