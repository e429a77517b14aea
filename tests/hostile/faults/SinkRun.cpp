// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkRun.h"

#include "Await.h"
#include "RawSender.h"

#include <VornNotificationCallback.h>
#include <VornServerSocket.h>

#include <climits>
#include <cstdlib>
#include <new>
#include <regex>

#include <sys/syscall.h>

using namespace VornNet;

namespace VornTest {

namespace {

std::mutex g_lock; // held while the run is interrupted, so that it outlives the interruption
SinkRun* g_run = nullptr;

const char* waitingCall(SinkRun::Kind kind) {
    switch (kind) {
    case SinkRun::Kind::pipe:
        return "select";
    case SinkRun::Kind::socket:
        return "accept";
    case SinkRun::Kind::udp:
        break;
    }
    return "recvfrom";
}

/** Says of a server that it is ready, which is a field of derived classes. */
class Readiness : public VornServerSocket {
public:
    static void set(VornServerSocket& server) {
        const auto field = &Readiness::m_bInitialized;
        __atomic_store_n(&(server.*field), true, __ATOMIC_RELEASE);
    }
};

} // namespace

class SinkRun::Sink : public VornLibraryCallbackSink {
public:
    Sink() : VornLibraryCallbackSink("faulted") {}

    using VornLibraryCallbackSink::establishCallbackServer;
    using VornLibraryCallbackSink::m_spCallbackServer;
};

class SinkRun::Callback : public VornNotificationCallback {
public:
    Callback(int id, SinkRun& run) : VornNotificationCallback(id), m_run(run) {}

protected:
    void doCallback(VornSmartPointer<VornConnection>& connection) override {
        const bool isRight = connection->receiveLong() == 12;
        char letter = 0;
        long error = 0;
        // To the end of the stream, so that the sender closes first and the sink keeps its port.
        while (m_run.m_kind == Kind::socket && connection->receive(&letter, 1, &error, true) == 1) {
        }
        if (isRight)
            m_run.m_delivered = m_run.m_waits.load();
    }

private:
    SinkRun& m_run;
};

std::string SinkRun::nameOf(Kind kind) {
    return kind == Kind::pipe ? "pipe" : kind == Kind::socket ? "socket" : "udp";
}

SinkRun::SinkRun(Kind kind)
    : m_kind(kind), m_log(9), m_memory(), m_sink(nullptr), m_waitHook(
                                                               waitingCall(kind),
                                                               [this] {
                                                                   m_thread = currentTid();
                                                                   ++m_waits;
                                                               },
                                                               INT_MAX),
      m_readHook(
          "recv", [this] { ++m_reads; }, INT_MAX) {
    static_assert(sizeof(Sink) <= sizeof m_memory);
    ::setenv("QUORAX_CALLB_CONN_TYPE", nameOf(kind).c_str(), 1);
    const std::lock_guard lock(g_lock);
    g_run = this;
}

SinkRun::~SinkRun() {
    const std::lock_guard lock(g_lock);
    g_run = nullptr;
    ::unsetenv("QUORAX_CALLB_CONN_TYPE");
}

Outcome SinkRun::deliverOne(const Stage& stage) {
    return stageLife(stage, [this] { serveUntilDelivered(); });
}

Outcome SinkRun::endUnderSilentClient(const Stage& stage) {
    UniqueFd client;
    const Outcome outcome = stageLife(stage, [this, &client] { client = connectSilently(); });
    // The sink has closed first; without a reset the port would be in the next sink's way.
    if (m_kind == Kind::socket)
        resetOnClose(client.get());
    return outcome;
}

Outcome SinkRun::stageLife(const Stage& stage, const std::function<void()>& middle) {
    return outcomeOfThread(stage([&] { return live(middle); }).text);
}

/** @return why the thread ended by itself; else, after its destruction, whether there was a delivery */
std::string SinkRun::live(const std::function<void()>& middle) {
    // Where the sink is must be known to whoever helps its constructor.
    m_sink = new (m_memory) Sink;
    m_phase = Phase::serving;
    const int id = m_sink->getCallbackContainer().getNewId();
    m_sink->getCallbackContainer().add(VornSmartPointer<VornNotificationCallback>(new Callback(id, *this)));
    middle();
    const bool hasEnded = m_sink->wait(0);
    if (!destroy())
        return "the destructor did not return";
    if (hasEnded)
        return "ended";
    return m_delivered > 0 ? "" : "not delivered";
}

/** @return whether it did so without help */
bool SinkRun::destroy() {
    std::atomic<bool> isGone = false;
    std::atomic<bool> hasHung = false;
    WatchedThread rescuer([&, address = m_sink->getCallbackAddress()] {
        hasHung = !awaitCondition([&] { return isGone.load(); });
        if (hasHung) // a client ends the wait of the sink's thread
            RawSender([&] { return isGone.load(); }).send(address, 0, 12);
    });
    m_phase = Phase::ending;
    m_sink->~Sink();
    m_phase = Phase::ended;
    isGone = true;
    rescuer.join();
    return !hasHung;
}

/** Waits until a client has a chance that it has not had before. @return false when there is none to come */
bool SinkRun::awaitChance(int sent) {
    bool isChance = false;
    awaitCondition([&] {
        isChance = m_delivered == 0 && m_waits > sent;
        const bool isDone = m_delivered > 0 && m_waits > m_delivered;
        return isChance || isDone || m_isGivenUp || m_sink->wait(0);
    });
    return isChance && !m_isGivenUp && !m_sink->wait(0);
}

void SinkRun::serveUntilDelivered() {
    const RawSender sender([this] { return m_isGivenUp || m_sink->wait(0); });
    for (int sent = 0; awaitChance(sent);) {
        // One datagram is enough for one life of the socket, and the second would be a second delivery.
        const bool isUnderWay = m_kind == Kind::udp && sent > 0;
        sent = m_waits;
        if (!isUnderWay && !sender.send(m_sink->getCallbackAddress(), 0, 12))
            m_isGivenUp = true;
    }
    awaitCondition([this] { return m_isGivenUp || m_sink->wait(0) || isBlockedInWait(); });
}

/** Whether the thread is in the midst of its wait, which a wait that fails never gets to. */
bool SinkRun::isBlockedInWait() const {
    const std::string task = "/proc/self/task/" + std::to_string(m_thread) + "/";
    try {
        const std::string stat = readTextFile(task + "stat");
        const int call = std::stoi(readTextFile(task + "syscall"));
        const bool isWait =
            call == SYS_select || call == SYS_pselect6 || call == SYS_accept || call == SYS_recvfrom;
        return isWait && stat.compare(stat.rfind(')'), 3, ") S") == 0;
    } catch (const std::exception&) {
        return false; // it runs, or it has just ended
    }
}

UniqueFd SinkRun::connectSilently() {
    awaitCondition([this] { return m_waits > 0; });
    UniqueFd client(RawSender::connectTo(m_sink->getCallbackAddress()));
    awaitCondition([this] { return m_reads > 0; });
    return client;
}

void SinkRun::interrupt(FaultControl& control) {
    const std::lock_guard lock(g_lock);
    if (g_run != nullptr)
        g_run->help(control);
}

void SinkRun::help(FaultControl& control) {
    const bool isLasting = control.failures() > 3;
    const bool isHeld = control.promise().isHeld;
    if (m_phase == Phase::constructing)
        helpConstructor(control, isLasting && isHeld);
    else if (m_phase == Phase::serving && isLasting && !m_isHelped)
        m_isGivenUp = true;
    else if (m_phase == Phase::ending && isLasting && isHeld)
        control.lift();
}

void SinkRun::helpConstructor(FaultControl& control, bool isHeld) {
    auto* sink = reinterpret_cast<Sink*>(m_memory);
    if (m_isHelped)
        return;
    if (m_log.contains(1, "exception ended thread")) {
        // The thread cannot make the server any more; whoever made it now would let the constructor go.
        m_isHelped = true;
        control.lift();
        sink->establishCallbackServer();
    } else if (m_log.count("waiting for data : socket::") > 3) {
        // The failure is past, and the server will never have an address.
        m_isHelped = true;
        m_isGivenUp = true;
        Readiness::set(dynamic_cast<VornServerSocket&>(*sink->m_spCallbackServer));
    } else if (isHeld) {
        m_isHelped = true;
        control.lift();
    }
}

Outcome SinkRun::outcomeOfThread(const std::string& text) const {
    static const std::regex escaped(
        "VornThread::run: exception ended thread 'faulted': (.*) \\(code=(\\d+)\\)");
    static const std::regex reason(
        "VornLibraryCallbackSink::run: .*(NULL returned|cannot establish connection|connection closed).*");
    static const std::regex exit("VornLibraryCallbackSink::run: exiting rc=(\\d+)");
    Outcome outcome = {text, 0};
    for (const std::string& record : m_log.texts()) {
        std::smatch match;
        if (std::regex_match(record, match, escaped))
            return {match[1], std::stoi(match[2])};
        if (text == "ended" && std::regex_match(record, match, reason))
            outcome.text = match[1];
        if (std::regex_match(record, match, exit))
            outcome.code = std::stoi(match[1]);
    }
    return outcome;
}

} // namespace VornTest
