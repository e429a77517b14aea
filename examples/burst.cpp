// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Sends 1,000 events without a pause over each transport: first by remoteNotify() to a
// VornLibraryCallbackSink, then by a VornDispatcher to VornSteadySinks, of which one stops for a while and
// one is killed in the middle. Every client is a process of its own, and says at the end what has arrived.

#include "PipeDirectory.h"
#include "TimeLimit.h"

#include <VornDispatcher.h>
#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornNotification.h>
#include <VornNotificationCallback.h>
#include <VornPipeServer.h>
#include <VornProxyDependent.h>
#include <VornSteadySink.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace VornNet;

namespace {

constexpr int cEvents = 1000;
constexpr int cMiddle = 300; // the event at which a client stops, or is killed
constexpr long cHandle = 0;
constexpr std::chrono::seconds cPatience(5);
constexpr int cMark = 0; // sent at the end, to see that nothing more is on its way

/** Keeps the events' numbers. */
class Recorder : public VornNotificationCallback {
public:
    /** @param nSignal what the process sends to itself in the middle, unless 0 */
    explicit Recorder(int nSignal) : VornNotificationCallback(cHandle), m_nSignal(nSignal) {}

    std::vector<int> events() const {
        const std::lock_guard lock(m_lock);
        return m_events;
    }

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        const int nEvent = static_cast<int>(spConnection->receiveLong());
        char rest = 0;
        long nError = 0;
        while (spConnection->receive(&rest, 1, &nError, true) > 0) { // only a library sink needs it
        }
        if (nEvent == cMiddle && m_nSignal != 0)
            std::raise(m_nSignal);
        const std::lock_guard lock(m_lock);
        m_events.push_back(nEvent);
    }

private:
    const int m_nSignal;
    mutable std::mutex m_lock;
    std::vector<int> m_events;
};

/** The client's life: tells its address, and whenever it is asked what has arrived. */
template <typename Sink>
[[noreturn]] void live(int link, int nSignal) {
    Sink sink("client");
    const VornSmartPointer<Recorder> spRecorder = new Recorder(nSignal);
    sink.getCallbackContainer().add(&*spRecorder);
    const VornString sAddress = sink.getCallbackAddress();
    write(link, sAddress.c_str(), sAddress.size() + 1);
    for (char question = 0; read(link, &question, 1) == 1;) {
        const std::vector<int> events = spRecorder->events();
        const std::size_t nCount = events.size();
        write(link, &nCount, sizeof nCount);
        write(link, events.data(), nCount * sizeof(int));
    }
    _exit(0);
}

/** A client in a process of its own. */
class Client {
public:
    template <typename Sink>
    static std::unique_ptr<Client> start(int nSignal) {
        std::array<int, 2> link{};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, link.data());
        const pid_t process = fork(); // there are no threads now
        if (process == 0) {
            close(link[0]);
            live<Sink>(link[1], nSignal);
        }
        close(link[1]);
        std::array<char, 256> address{};
        if (read(link[0], address.data(), address.size() - 1) <= 0)
            throw VornException("a client could not start", 0);
        return std::unique_ptr<Client>(new Client(process, link[0], address.data()));
    }

    ~Client() {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
        close(m_link);
        const VornString sPipe = "pipe:";
        if (m_sAddress.compare(0, sPipe.size(), sPipe) == 0) // a killed process leaves it behind
            unlink(VornPipeServer::getFullPipeName(m_sAddress.substr(sPipe.size())).c_str());
    }

    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    const VornString& address() const { return m_sAddress; }

    /** Waits until it has stopped, and lets it go on after a while. */
    void awaitStopAndContinue() const {
        waitpid(m_process, nullptr, WUNTRACED);
        usleep(200'000);
        kill(m_process, SIGCONT);
    }

    /** @return what has arrived so far, but the mark */
    std::vector<int> events() const {
        std::size_t nCount = 0;
        if (write(m_link, "?", 1) != 1 || recv(m_link, &nCount, sizeof nCount, MSG_WAITALL) <= 0)
            return {};
        std::vector<int> events(nCount);
        recv(m_link, events.data(), nCount * sizeof(int), MSG_WAITALL);
        m_bMarked = std::count(events.begin(), events.end(), cMark) > 0;
        std::erase(events, cMark);
        return events;
    }

    /** @return whether the mark has arrived when events() was called last */
    bool isMarked() const { return m_bMarked; }

private:
    Client(pid_t process, int link, const char* sAddress)
        : m_process(process), m_link(link), m_sAddress(sAddress) {}

    const pid_t m_process;
    const int m_link;
    const VornString m_sAddress;
    mutable bool m_bMarked = false;
};

bool notify(VornProxyDependent& proxy, int nEvent) {
    try {
        proxy.remoteNotify(VornNotification(nEvent));
        return true;
    } catch (const VornException&) {
        return false;
    }
}

void sendByProxy(const char* sTransport) {
    const auto spClient = Client::start<VornLibraryCallbackSink>(0);
    VornProxyDependent proxy(spClient->address(), cHandle);
    int nSent = 0;
    int nRefused = 0;
    {
        // A TCP sink's queue that is full drops a connection silently, and the system tries it again each
        // second.
        const Example::TimeLimit limit(cPatience);
        const auto end = std::chrono::steady_clock::now() + cPatience;
        for (int nEvent = 1; nEvent <= cEvents && std::chrono::steady_clock::now() < end; ++nEvent)
            ++(notify(proxy, nEvent) ? nSent : nRefused);
    }
    std::vector<int> events = spClient->events();
    for (int nTry = 0; nTry < 50 && !spClient->isMarked();
         ++nTry) { // not for long: a TCP sink may have moved
        notify(proxy, cMark);
        usleep(10'000);
        events = spClient->events();
    }
    std::printf(
        "%-6s  remoteNotify() and library sink: %4zu of %d arrived; %d were refused, %d lost silently, "
        "%d not sent within 5 s\n",
        sTransport, events.size(), cEvents, nRefused, nSent - static_cast<int>(events.size()),
        cEvents - nSent - nRefused);
}

/** @return whether all have arrived, each once, in order */
bool isWhole(const Client& client) {
    std::vector<int> all(cEvents);
    std::iota(all.begin(), all.end(), 1);
    return client.events() == all;
}

bool sendByDispatcher(const char* sTransport) {
    const auto spSteady = Client::start<VornSteadySink>(0);
    const auto spStopped = Client::start<VornSteadySink>(SIGSTOP);
    const auto spKilled = Client::start<VornSteadySink>(SIGKILL);
    int nOfKilled = 0; // events that it is known to have taken
    VornDispatcher::Options options;
    options.terms.timeLimit = std::chrono::seconds(3);
    options.onResult = [&](const VornDispatcher::Result& result) {
        const bool bTaken = result.outcome == VornDispatcher::Outcome::delivered ||
                            result.outcome == VornDispatcher::Outcome::sent;
        if (bTaken && result.sAddress == spKilled->address())
            ++nOfKilled;
    };
    {
        VornDispatcher dispatcher(options);
        for (int nEvent = 1; nEvent <= cEvents; ++nEvent) {
            for (const Client* pClient : {spSteady.get(), spStopped.get(), spKilled.get()}) {
                VornProxyDependent proxy(pClient->address(), cHandle);
                dispatcher.post(proxy, VornNotification(nEvent));
            }
        }
        spStopped->awaitStopAndContinue();
        dispatcher.stop(std::chrono::seconds(10));
    }
    bool bPassed = true;
    for (const Client* pClient : {spSteady.get(), spStopped.get()}) {
        const bool bWhole = isWhole(*pClient);
        bPassed = bPassed && bWhole;
        std::printf("%-6s  dispatcher and steady sink%s: %4zu of %d arrived, %s\n", sTransport,
                    pClient == spStopped.get() ? ", stopped for a while" : "", pClient->events().size(),
                    cEvents, bWhole ? "each once, in order" : "NOT each once and in order");
    }
    std::printf(
        "%-6s  dispatcher and a steady sink that is killed at event %d: %d %s, the rest was reported\n",
        sTransport, cMiddle, nOfKilled, std::string(sTransport) == "udp" ? "sent" : "delivered");
    // A datagram is sent, and nobody knows; over the others nothing counts that no callback has finished.
    return bPassed && (std::string(sTransport) == "udp" || nOfKilled == cMiddle - 1);
}

} // namespace

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!Example::hasPipeDirectory("burst"))
        return 1;
    bool bPassed = true;
    for (const char* sTransport : {"pipe", "socket", "udp"}) {
        setenv("QUORAX_CALLB_CONN_TYPE", sTransport, 1);
        try {
            sendByProxy(sTransport);
            bPassed = sendByDispatcher(sTransport) && bPassed;
        } catch (const VornException& e) {
            std::fprintf(stderr, "burst: %s (%d)\n", e.getText().c_str(), e.getCode());
            return 1;
        }
    }
    return bPassed ? 0 : 1;
}
