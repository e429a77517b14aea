// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Posix.h"
#include "RelayStage.h"
#include "Sandbox.h"

#include <NatsConnection.h>
#include <VornConnection.h>
#include <VornDispatcher.h>
#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>
#include <VornProxyDependent.h>
#include <VornSteadySink.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornSupport;
using namespace VornTest;

namespace {

using Clock = std::chrono::steady_clock;
using Times = std::vector<double>; // seconds of the steady clock, by number

double now() {
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

/** A notification with a content of a given size. */
class SizedProxy : public VornProxyDependent {
public:
    SizedProxy(const std::string& sAddress, long hDependent, std::size_t nSize)
        : VornProxyDependent(sAddress.c_str(), hDependent), m_content(nSize, 'x') {}

    void addContent(VornConnection& connection, const VornNotification& notification) override {
        connection.transfer(static_cast<long>(notification.getId()));
        connection.transfer(VornString(m_content.c_str()));
    }

private:
    const std::string m_content;
};

class TimingCallback : public VornNotificationCallback {
public:
    TimingCallback(int nId, std::size_t nCount) : VornNotificationCallback(nId), m_times(nCount) {}

    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        const auto n = static_cast<std::size_t>(spConnection->receiveLong());
        spConnection->receiveString();
        const std::lock_guard lock(m_mutex);
        m_times.at(n) = now();
        if (++m_nSeen == m_times.size())
            m_all.notify_all();
    }

    Times await() {
        std::unique_lock lock(m_mutex);
        m_all.wait(lock, [this] { return m_nSeen >= m_times.size(); });
        return m_times;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_all;
    std::size_t m_nSeen = 0;
    Times m_times;
};

void print(const Times& times) {
    for (const double time : times)
        std::printf("%.9f ", time);
    std::printf("\n");
    std::fflush(stdout);
}

Times timesIn(const std::string& sLine) {
    std::istringstream words(sLine);
    return {std::istream_iterator<double>(words), std::istream_iterator<double>()};
}

/** The same job by the engine's own client: publish with an answer, pull, acknowledge. */
class EngineClient {
public:
    static constexpr std::size_t cUsualWindow = 2048; // as the relay's

    explicit EngineClient(const VornRelay::EngineAccess& access) {
        for (auto* pConnection : {&m_spSender, &m_spReceiver}) {
            natsConnection* created = nullptr;
            const auto options = VornRelay::optionsFor(access, std::chrono::seconds(5));
            if (natsConnection_Connect(&created, options.get()) != NATS_OK)
                throw std::runtime_error("no connection");
            pConnection->reset(created);
        }
        m_sInbox = VornRelay::inboxOf(access);
        subscribe(m_spSender.get(), m_sInbox + ".answers", &onAnswer);
        subscribe(m_spReceiver.get(), m_sInbox + ".messages", &onMessage);
    }

    ~EngineClient() {
        for (auto* pConnection : {&m_spSender, &m_spReceiver})
            natsConnection_Close(pConnection->get());
    }

    /** @param nWindow most without an answer @return when each was published, and when it came */
    std::pair<Times, Times> run(std::size_t nCount, std::size_t nSize, double gap,
                                std::size_t nWindow = cUsualWindow) {
        m_nPublished = m_nAnswered = m_nSeen = 0;
        m_sent.assign(nCount, 0);
        m_came.assign(nCount, 0);
        pull(512);
        const std::string sContent(nSize, 'x');
        for (std::size_t n = 0; n < nCount; ++n) {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock, [&] { return m_nPublished - m_nAnswered < nWindow; });
            ++m_nPublished;
            m_sent[n] = now();
            lock.unlock();
            const std::string sMessage = std::to_string(n) + " " + sContent;
            natsConnection_PublishRequestString(m_spSender.get(), "vorn.to.bench.sink.lease.1",
                                                (m_sInbox + ".answers").c_str(), sMessage.c_str());
            lock.lock();
            if (gap > 0)
                m_changed.wait_for(lock, std::chrono::duration<double>(gap), [] { return false; });
        }
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_nSeen >= nCount; });
        return {m_sent, m_came};
    }

private:
    void subscribe(natsConnection* connection, const std::string& sSubject, natsMsgHandler handler) {
        natsSubscription* created = nullptr;
        natsConnection_Subscribe(&created, connection, sSubject.c_str(), handler, this);
        m_subscriptions.emplace_back(created);
    }

    void pull(std::size_t nCount) {
        m_nAsked += nCount;
        const std::string sRequest = "{\"batch\":" + std::to_string(nCount) + ",\"expires\":60000000000}";
        natsConnection_PublishRequestString(m_spReceiver.get(),
                                            "$JS.API.CONSUMER.MSG.NEXT.VORN_TO_bench.relay",
                                            (m_sInbox + ".messages").c_str(), sRequest.c_str());
    }

    static void onAnswer(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
        auto* pClient = static_cast<EngineClient*>(closure);
        const std::lock_guard lock(pClient->m_mutex);
        ++pClient->m_nAnswered;
        pClient->m_changed.notify_all();
        natsMsg_Destroy(message);
    }

    static void onMessage(natsConnection* connection, natsSubscription*, natsMsg* message, void* closure) {
        auto* pClient = static_cast<EngineClient*>(closure);
        if (const char* szReply = natsMsg_GetReply(message); szReply != nullptr) {
            natsConnection_PublishString(connection, szReply, "+ACK");
            const std::lock_guard lock(pClient->m_mutex);
            pClient->m_came.at(std::stoul(natsMsg_GetData(message))) = now();
            ++pClient->m_nSeen;
            if (--pClient->m_nAsked < 256)
                pClient->pull(512);
            pClient->m_changed.notify_all();
        }
        natsMsg_Destroy(message);
    }

    std::string m_sInbox;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_nPublished = 0;
    std::size_t m_nAnswered = 0;
    std::size_t m_nSeen = 0;
    std::size_t m_nAsked = 0;
    Times m_sent;
    Times m_came;
    VornRelay::NatsPointer<natsConnection> m_spSender;
    VornRelay::NatsPointer<natsConnection> m_spReceiver;
    std::vector<VornRelay::NatsPointer<natsSubscription>> m_subscriptions;
};

/** What is sent, and to whom. */
struct Job {
    std::string sKind = "plain"; // of the service: plain or confirmed
    std::size_t nCount = 0;
    std::size_t nSize = 100;
    double gap = 0;
    std::size_t nSinks = 1; // each gets its part of the count
    std::string sSink = "steady";
};

/** By the relay: services on one host, and as many sinks on the other. Or @p bAlone on one host, without it.
 */
std::pair<Times, Times> runRelay(const Job& job, bool bAlone = false) {
    const std::string sEach = std::to_string(job.nCount / job.nSinks);
    std::vector<ChildProcess> sinks;
    std::vector<ChildProcess> services;
    for (std::size_t n = 0; n < job.nSinks; ++n)
        sinks.push_back(
            ChildProcess::spawnRole("bench_sink", "b", sEach, job.sSink, bAlone ? "address" : "lease"));
    for (ChildProcess& sink : sinks) {
        const std::string sLease = sink.readLine();
        const std::size_t nBlank = sLease.find(' ');
        services.push_back(ChildProcess::spawnRole("bench_service", bAlone ? "b" : "a", job.sKind,
                                                   sLease.substr(0, nBlank), sLease.substr(nBlank + 1), sEach,
                                                   std::to_string(job.nSize), std::to_string(job.gap)));
    }
    std::pair<Times, Times> result;
    for (auto [processes, times] : {std::pair(&services, &result.first), std::pair(&sinks, &result.second)}) {
        for (ChildProcess& process : *processes) {
            const Times part = timesIn(process.readLine(std::chrono::minutes(2)));
            times->insert(times->end(), part.begin(), part.end());
        }
    }
    return result;
}

void append(std::pair<Times, Times>& all, const std::pair<Times, Times>& run) {
    all.first.insert(all.first.end(), run.first.begin(), run.first.end());
    all.second.insert(all.second.end(), run.second.begin(), run.second.end());
}

double rateOf(const std::pair<Times, Times>& run) {
    return static_cast<double>(run.first.size()) / (*std::max_element(run.second.begin(), run.second.end()) -
                                                    *std::min_element(run.first.begin(), run.first.end()));
}

/** @return the latency that this part of them does not exceed, in milliseconds */
double latencyOf(const std::pair<Times, Times>& run, double part) {
    Times latencies;
    for (std::size_t n = 0; n < run.first.size(); ++n)
        latencies.push_back((run.second[n] - run.first[n]) * 1000);
    std::sort(latencies.begin(), latencies.end());
    return latencies[static_cast<std::size_t>(part * static_cast<double>(latencies.size() - 1))];
}

double medianOf(Times values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/**
 * Rates of the relay, of the engine's client, and of a dispatcher at the same sinks without a relay, which is
 * the most that they take; in turns, so that all have the same machine. A service that waits for each
 * confirmation is compared with a client that waits for each answer.
 */
void compareRates(EngineClient& client, const Job& job) {
    const std::size_t nWindow = job.sKind == "confirmed" ? 1 : EngineClient::cUsualWindow;
    Times relay;
    Times engine;
    Times alone;
    for (int nRound = 0; nRound < 5; ++nRound) {
        relay.push_back(rateOf(runRelay(job)));
        engine.push_back(rateOf(client.run(job.nCount, job.nSize, 0, nWindow)));
        Job confirmed = job;
        confirmed.sKind = "confirmed";
        alone.push_back(rateOf(runRelay(confirmed, true)));
    }
    std::printf(
        "%-32s %8.0f/s %8.0f/s %8.0f/s  ratio %.2f\n",
        (job.sKind + ", " + std::to_string(job.nSize) + " bytes, sinks: " + std::to_string(job.nSinks))
            .c_str(),
        medianOf(relay), medianOf(engine), medianOf(alone), medianOf(relay) / medianOf(engine));
}

/** Paced at 200 a second, in turns. */
void compareLatencies(EngineClient& client, const std::string& sSink) {
    std::pair<Times, Times> relay;
    std::pair<Times, Times> engine;
    for (int nRound = 0; nRound < 4; ++nRound) {
        append(relay, runRelay({.nCount = 300, .gap = 0.005, .sSink = sSink}));
        append(engine, client.run(300, 100, 0.005));
    }
    for (const double part : {0.5, 0.99})
        std::printf("%-32s %7.2f ms %7.2f ms  ratio %.2f\n",
                    ((part < 0.9 ? "latency, " : "99 % latency, ") + sSink + " sink").c_str(),
                    latencyOf(relay, part), latencyOf(engine, part),
                    latencyOf(relay, part) / latencyOf(engine, part));
}

/** @return microseconds that a process has worked. */
double workOf(pid_t process) {
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    const std::vector<std::string> words{std::istream_iterator<std::string>(stat), {}};
    return (std::stod(words.at(13)) + std::stod(words.at(14))) * 1e6 /
           static_cast<double>(::sysconf(_SC_CLK_TCK));
}

std::size_t residentKilobytes(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    std::size_t nKilobytes = 0;
    for (std::string sLine; std::getline(status, sLine);) {
        if (sLine.starts_with("VmRSS:"))
            nKilobytes = std::stoul(sLine.substr(6));
    }
    return nKilobytes;
}

constexpr std::size_t cRoundTrip = 100; // bytes each way
constexpr int cForwardPort = 7000;
const char cForwardAddress[] = "10.77.1.2"; // of host `a`, in a network of its own

/** Connects to what bench_forward_service offers: through the relays, or by TCP. */
UniqueFd connectToService(bool bForwarded) {
    return bForwarded ? unixConnect(pipePath("plain@a")) : tcpConnect(cForwardAddress, cForwardPort);
}

/** @return milliseconds, the median */
double roundTripOf(const UniqueFd& service) {
    Times times;
    const std::string sQuestion(cRoundTrip, 'q');
    for (int n = 0; n < 1000; ++n) {
        const double start = now();
        sendAll(service.get(), sQuestion);
        receiveExactly(service.get(), cRoundTrip);
        times.push_back((now() - start) * 1000);
    }
    return medianOf(times);
}

/** @return megabytes a second, one way */
double throughputOf(const UniqueFd& service) {
    const double megabytes = 32;
    const std::string sBytes(static_cast<std::size_t>(megabytes * 1e6), 'x');
    const double start = now();
    sendAll(service.get(), sBytes);
    ::shutdown(service.get(), SHUT_WR);
    receiveToEnd(service.get()); // which the service sends when it has all
    return megabytes / (now() - start);
}

/** Gives back what it gets, or throws it away if it begins with an x. */
void serve(const UniqueFd& client) {
    char bytes[65536];
    for (;;) {
        const ssize_t count = ::recv(client.get(), bytes, sizeof bytes, 0);
        if (count <= 0)
            return;
        if (bytes[0] == 'q')
            sendAll(client.get(), std::string(bytes, static_cast<std::size_t>(count)));
    }
}

/** @param bAlone no relay is asked for a lease */
template <typename Sink>
void serve(Sink& sink, std::size_t nCount, bool bAlone) {
    VornCallbackContainer& callbacks = sink.getCallbackContainer();
    const VornSmartPointer<TimingCallback> spCallback = new TimingCallback(callbacks.getNewId(), nCount);
    callbacks.add(&*spCallback);
    const VornString sAddress = sink.getCallbackAddress();
    std::cout << (bAlone ? std::string(sAddress.c_str()) + " " + std::to_string(spCallback->getId())
                         : RelayStage::leaseFor("", sAddress, spCallback->getId()))
              << std::endl;
    print(spCallback->await());
}

} // namespace

KIT_ROLE(bench_sink) {
    RelayStage::enterHost(args.at(0));
    const std::size_t nCount = std::stoul(args.at(1));
    const bool bAlone = args.at(3) == "address";
    if (args.at(2) == "steady") {
        VornSteadySink sink("sink");
        serve(sink, nCount, bAlone);
    } else {
        VornLibraryCallbackSink sink("sink");
        serve(sink, nCount, bAlone);
    }
    return 0;
}

KIT_ROLE(bench_service) {
    RelayStage::enterHost(args.at(0));
    const auto nCount = std::stoul(args.at(4));
    const double gap = std::stod(args.at(6));
    const VornSmartPointer<SizedProxy> spProxy =
        new SizedProxy(args.at(2), std::stol(args.at(3)), std::stoul(args.at(5)));
    Times times;
    VornDispatcher::Options options;
    options.nQueueLimit = nCount + 1;
    options.terms.timeLimit = std::chrono::minutes(2);
    VornDispatcher dispatcher(options);
    for (std::size_t n = 0; n < nCount; ++n) {
        times.push_back(now());
        if (args.at(1) == "plain")
            spProxy->remoteNotify(VornNotification(static_cast<int>(n)));
        else
            dispatcher.post(*spProxy, VornNotification(static_cast<int>(n)));
        std::this_thread::sleep_until(Clock::time_point(
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(times.back() + gap))));
    }
    dispatcher.flush(std::chrono::minutes(2));
    print(times);
    return 0;
}

TEST(RelayBench, BesideTheEnginesOwnClient) {
    RelayStage stage;
    stage.startRelay("a");
    stage.startRelay("b");
    VornRelay::NatsAdministration administration = stage.administration();
    VornRelay::NatsAdministration::Limits limits;
    limits.bFixedConsumer = true;
    administration.addHost("bench", limits);
    EngineClient client(stage.access("admin"));
    std::printf("%-32s %10s %10s %10s\n", "", "relay", "engine", "sink");
    for (const Job& job :
         {Job{.nCount = 3000}, Job{.nCount = 3000, .nSinks = 10}, Job{.nCount = 3000, .nSize = 4096},
          Job{.nCount = 300, .nSize = 65'536}, Job{.sKind = "confirmed", .nCount = 1000}})
        compareRates(client, job);
    for (const char* szSink : {"steady", "plain"})
        compareLatencies(client, szSink);
}

/** Host `a` may notify many others, which all have a stream with a consumer. */
TEST(RelayBench, GrowthWithHosts) {
    RelayStage stage;
    VornRelay::NatsAdministration administration = stage.administration();
    VornRelay::NatsAdministration::Limits limits;
    limits.nBytes = 1024 * 1024;
    limits.bFixedConsumer = true;
    std::string sHosts = "send-to = b";
    stage.startRelay("b");
    std::printf("%-32s %10s %10s\n", "hosts", "burst", "latency");
    for (const std::size_t nHosts : {1U, 100U, 500U}) {
        for (std::size_t n = static_cast<std::size_t>(std::count(sHosts.begin(), sHosts.end(), ','));
             n + 1 < nHosts; ++n) {
            administration.addHost("h" + std::to_string(n), limits);
            sHosts += ",h" + std::to_string(n);
        }
        stage.startRelay("a", sHosts + "\n");
        std::printf("%-32zu %8.0f/s %7.2f ms\n", nHosts, rateOf(runRelay({.nCount = 3000})),
                    latencyOf(runRelay({.nCount = 300, .gap = 0.005}), 0.5));
        stage.endRelay("a", SIGTERM);
    }
}

/** A request to a service of another host: through `NAME@HOST`, and over TCP through the same networks. */
TEST(RelayBench, ForwardedBesideTcp) {
    RelayStage stage;
    std::ofstream("/proc/sys/net/ipv4/ip_forward") << 1 << std::endl;
    for (const auto& [sHost, sNext] : {std::pair("a", "10.77.1.1"), std::pair("b", "10.77.2.1")}) {
        stage.separateNetwork(sHost);
        const std::string sRoute = std::string("ip route add default via ") + sNext;
        ASSERT_EQ(ChildProcess::spawnRole("relay_command", sHost, "/bin/sh", "-c", sRoute).wait(), 0);
    }
    ChildProcess service = ChildProcess::spawnRole("bench_forward_service");
    service.readLine();
    stage.startRelay("a", "offer = plain=pipe:plain\n");
    stage.startRelay("b", "reach = plain@a\n");
    std::printf("%-32s %10s %10s\n", "", "forwarded", "TCP");
    ChildProcess client = ChildProcess::spawnRole("bench_forward_client");
    const Times values = timesIn(client.readLine(std::chrono::minutes(2)));
    std::printf("%-32s %7.2f ms %7.2f ms  ratio %.1f\n", "there and back, 100 bytes", values.at(0),
                values.at(1), values.at(0) / values.at(1));
    std::printf("%-32s %5.0f MB/s %5.0f MB/s  ratio %.2f\n", "one way", values.at(2), values.at(3),
                values.at(2) / values.at(3));
}

KIT_ROLE(bench_forward_service) {
    RelayStage::enterHost("a");
    int nPort = cForwardPort;
    const UniqueFd pipe = unixListen(pipePath("plain"));
    const UniqueFd tcp = tcpListen(cForwardAddress, nPort);
    std::cout << "listens" << std::endl;
    for (std::array<pollfd, 2> ends{{{pipe.get(), POLLIN, 0}, {tcp.get(), POLLIN, 0}}};;) {
        if (::poll(ends.data(), ends.size(), -1) == -1)
            return static_cast<int>(args.size());
        for (const pollfd& end : ends) {
            if ((end.revents & POLLIN) != 0)
                serve(acceptClient(end.fd));
        }
    }
}

/** Both in turns; prints the medians: round trip forwarded and by TCP, and the same of bytes a second. */
KIT_ROLE(bench_forward_client) {
    RelayStage::enterHost("b");
    std::array<Times, 4> values;
    for (std::size_t nRound = 0; nRound < 5; ++nRound) {
        for (const std::size_t nWay : {0U, 1U}) {
            values[nWay].push_back(roundTripOf(connectToService(nWay == 0)));
            values[2 + nWay].push_back(throughputOf(connectToService(nWay == 0)));
        }
    }
    print({medianOf(values[0]), medianOf(values[1]), medianOf(values[2]), medianOf(values[3])});
    return static_cast<int>(args.size());
}

/** It hardly depends on what else the machine does. */
TEST(RelayBench, WorkForEachNotification) {
    RelayStage stage;
    stage.startRelay("a");
    stage.startRelay("b");
    const std::size_t nCount = 10'000;
    const double sending = workOf(stage.relayProcess("a"));
    const double receiving = workOf(stage.relayProcess("b"));
    runRelay({.nCount = nCount});
    std::printf("work for each notification: %.0f us where the service is, %.0f us where the sink is\n",
                (workOf(stage.relayProcess("a")) - sending) / static_cast<double>(nCount),
                (workOf(stage.relayProcess("b")) - receiving) / static_cast<double>(nCount));
}

TEST(RelayBench, MemoryOfLeasesAndHosts) {
    RelayStage stage;
    const std::size_t nLeases = 2000;
    stage.startRelay("b");
    ChildProcess sink = ChildProcess::spawnRole("bench_sink", "b", "1", "steady", "lease");
    sink.readLine();
    const std::size_t nBefore = residentKilobytes(stage.relayProcess("b"));
    ChildProcess leases = ChildProcess::spawnRole("bench_leases", "b", std::to_string(nLeases));
    leases.readLine(std::chrono::minutes(2));
    const std::size_t nWithLeases = residentKilobytes(stage.relayProcess("b"));
    const std::size_t nHosts = 500;
    std::string sHosts = "send-to = b";
    for (std::size_t n = 0; n < nHosts; ++n)
        sHosts += ",h" + std::to_string(n);
    stage.startRelay("a");
    const std::size_t nOneHost = residentKilobytes(stage.relayProcess("a"));
    stage.endRelay("a", SIGTERM);
    stage.startRelay("a", sHosts + "\n");
    const std::size_t nManyHosts = residentKilobytes(stage.relayProcess("a"));
    std::printf("relay %zu KiB; a lease %.2f KiB; a host that may be notified %.2f KiB\n", nBefore,
                static_cast<double>(nWithLeases - nBefore) / static_cast<double>(nLeases),
                static_cast<double>(nManyHosts - nOneHost) / static_cast<double>(nHosts));
}

KIT_ROLE(bench_leases) {
    RelayStage::enterHost(args.at(0));
    VornSteadySink sink("sink");
    for (int n = 0; n < std::stoi(args.at(1)); ++n)
        RelayStage::leaseFor("", sink.getCallbackAddress(), n);
    std::cout << "taken" << std::endl;
    std::string sEnd;
    std::getline(std::cin, sEnd);
    return 0;
}
