// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Sends 1,000 events without a pause over each transport: first by remoteNotify() to a
// VornLibraryCallbackSink, then by a VornDispatcher to VornSteadySinks, of which one stops for a while and
// one is killed in the middle. Every client is a process of its own, and records what has arrived.

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
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace VornNet;

namespace {

constexpr int cEvents = 1000;
constexpr int cMiddle = 300; // the event at which a client stops, or is killed
constexpr long cHandle = 0;
constexpr std::chrono::seconds cPatience(5);
constexpr int cMark = 0; // sent at the end, to see that nothing more is on its way

/** What a client has received, in memory that it shares with this process. */
struct Record {
    std::array<int, std::size_t{2} * cEvents> events;
    std::atomic<std::size_t> nCount;
    std::atomic<bool> bMarked;
};

/** Keeps the events' numbers. */
class Recorder : public VornNotificationCallback {
public:
    /** @param nSignal what the process sends to itself in the middle, unless 0 */
    Recorder(Record& record, int nSignal)
        : VornNotificationCallback(cHandle), m_record(record), m_nSignal(nSignal) {}

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        const int nEvent = static_cast<int>(spConnection->receiveLong());
        char rest = 0;
        long nError = 0;
        while (spConnection->receive(&rest, 1, &nError, true) > 0) { // only a library sink needs it
        }
        if (nEvent == cMiddle && m_nSignal != 0)
            std::raise(m_nSignal);
        if (nEvent == cMark) {
            m_record.bMarked = true;
        } else if (m_record.nCount < m_record.events.size()) {
            m_record.events[m_record.nCount] = nEvent;
            ++m_record.nCount;
        }
    }

private:
    Record& m_record;
    const int m_nSignal;
};

/** A client in a process of its own. */
class Client {
public:
    template <typename Sink>
    static std::unique_ptr<Client> start(int nSignal) {
        auto* pRecord = static_cast<Record*>(
            mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        std::array<int, 2> link{};
        if (pipe2(link.data(), O_CLOEXEC) != 0 || pRecord == MAP_FAILED)
            throw VornException("a client could not start", errno);
        const pid_t process = fork(); // there are no threads now
        if (process == 0)
            live<Sink>(*pRecord, link[1], nSignal);
        close(link[1]);
        std::array<char, 256> address{};
        const ssize_t size = read(link[0], address.data(), address.size() - 1);
        close(link[0]);
        if (size <= 0)
            throw VornException("a client could not start", 0);
        return std::unique_ptr<Client>(new Client(process, *pRecord, address.data()));
    }

    ~Client() {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
        munmap(&m_record, sizeof m_record);
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

    /** @return how many have arrived so far, but the mark */
    std::size_t received() const { return m_record.nCount; }

    bool isMarked() const { return m_record.bMarked; }

    /** @return whether all arrive, each once, in order; datagrams may still be on their way */
    bool isWhole() const {
        for (int nTry = 0; nTry < 500 && received() < cEvents; ++nTry)
            usleep(10'000);
        std::vector<int> all(cEvents);
        std::iota(all.begin(), all.end(), 1);
        return received() == cEvents && std::equal(all.begin(), all.end(), m_record.events.begin());
    }

private:
    Client(pid_t process, Record& record, const char* sAddress)
        : m_process(process), m_record(record), m_sAddress(sAddress) {}

    /** The client's life: tells its address, and records until it is killed. */
    template <typename Sink>
    [[noreturn]] static void live(Record& record, int link, int nSignal) {
        Sink sink("client");
        sink.getCallbackContainer().add(new Recorder(record, nSignal));
        const VornString sAddress = sink.getCallbackAddress();
        write(link, sAddress.c_str(), sAddress.size() + 1);
        for (;;)
            pause();
    }

    const pid_t m_process;
    Record& m_record;
    const VornString m_sAddress;
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
    for (int nTry = 0; nTry < 50 && !spClient->isMarked();
         ++nTry) { // not for long: a TCP sink may have moved
        notify(proxy, cMark);
        usleep(10'000);
    }
    const std::size_t nArrived = spClient->received();
    std::printf(
        "%-6s  remoteNotify() and library sink: %4zu of %d arrived; %d were refused, %d lost silently, "
        "%d not sent within 5 s\n",
        sTransport, nArrived, cEvents, nRefused, nSent - static_cast<int>(nArrived),
        cEvents - nSent - nRefused);
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
        const bool bWhole = pClient->isWhole();
        bPassed = bPassed && bWhole;
        std::printf("%-6s  dispatcher and steady sink%s: %4zu of %d arrived, %s\n", sTransport,
                    pClient == spStopped.get() ? ", stopped for a while" : "", pClient->received(), cEvents,
                    bWhole ? "each once, in order" : "NOT each once and in order");
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
