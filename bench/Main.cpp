// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"

#include "Sandbox.h"

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace Bench {

namespace {

std::vector<Entry> g_entries;
bool g_isCounting = false;

/** Median and 99th percentile of the first operations; more of them tell nothing new. */
class Times {
public:
    Times() { m_seconds.reserve(cMost); }

    void add(double seconds) {
        if (m_seconds.size() < cMost)
            m_seconds.push_back(seconds);
    }

    std::size_t count() const { return m_seconds.size(); }

    double nanosecondsAt(double share) {
        const auto place = static_cast<std::ptrdiff_t>(share * static_cast<double>(m_seconds.size() - 1));
        std::nth_element(m_seconds.begin(), m_seconds.begin() + place, m_seconds.end());
        return m_seconds[static_cast<std::size_t>(place)] * 1e9;
    }

private:
    static constexpr std::size_t cMost = 100'000;
    std::vector<double> m_seconds;
};

void measure(benchmark::State& state, const Entry& entry) {
    const std::unique_ptr<Contender> contender = entry.make();
    Times times;
    const auto operateOnce = [&] {
        contender->prepare();
        const Clock::time_point start = Clock::now();
        const double seconds = std::chrono::duration<double>(contender->operate() - start).count();
        times.add(seconds);
        return seconds;
    };
    for (auto _ : state)
        state.SetIterationTime(operateOnce());
    // A single operation that is held up can use up the whole time, and it alone would be no median.
    constexpr std::size_t cFewest = 9;
    while (times.count() < cFewest)
        operateOnce();
    state.counters["p50"] = times.nanosecondsAt(0.50) / static_cast<double>(entry.units);
    state.counters["p99"] = times.nanosecondsAt(0.99) / static_cast<double>(entry.units);
}

void registerForTiming(const Entry& entry, const std::string& name) {
    benchmark::RegisterBenchmark(name.c_str(), [&entry](benchmark::State& state) {
        measure(state, entry);
    })->UseManualTime();
}

int measureTimes(int argc, char** argv) {
    for (const Entry& entry : g_entries) {
        registerForTiming(entry, entry.name());
        // The limit against itself shows what the machine's unrest alone does to a ratio.
        if (entry.contender == "limit" && entry.parameter == 0)
            registerForTiming(entry, entry.workload + "/limit-again");
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

int listEntries() {
    for (const Entry& entry : g_entries)
        std::printf("%s %s %ld %ld\n", entry.workload.c_str(), entry.contender.c_str(), entry.parameter,
                    entry.units);
    return 0;
}

/** Does an exact number of operations, for tools that count what happens meanwhile. */
int operate(const std::string& name, long operations) {
    constexpr int cWarmUp = 20;
    const auto entry =
        std::find_if(g_entries.begin(), g_entries.end(), [&](const Entry& e) { return e.name() == name; });
    if (entry == g_entries.end() || operations <= 0) {
        std::fprintf(stderr, "vornnet_bench: no such contender or number: %s\n", name.c_str());
        return 2;
    }
    g_isCounting = true;
    const std::unique_ptr<Contender> contender = entry->make();
    long counted = 0;
    for (long i = 0; i < cWarmUp + operations; ++i) {
        contender->prepare();
        const long before = allocations();
        contender->operate();
        if (i >= cWarmUp)
            counted += allocations() - before;
    }
    std::printf("{\"allocations\": %.4f}\n", static_cast<double>(counted) / static_cast<double>(operations));
    return 0;
}

void giveUp(const char* what) {
    std::perror(what);
    std::exit(2);
}

/**
 * All threads share one processor: otherwise the figures depend on where the scheduler puts the two ends. A
 * thread that is woken there does not preempt the one that wakes it (SCHED_BATCH), so that the order of
 * events is the same every time: the sender goes on until it waits, and only then the receiver runs.
 */
void pinToOneProcessor() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        giveUp("sched_getaffinity");
    int last = CPU_SETSIZE - 1;
    while (!CPU_ISSET(last, &allowed))
        --last;
    cpu_set_t chosen;
    CPU_ZERO(&chosen);
    CPU_SET(last, &chosen);
    if (sched_setaffinity(0, sizeof chosen, &chosen) != 0)
        giveUp("sched_setaffinity");
    const sched_param parameters{};
    if (sched_setscheduler(0, SCHED_BATCH, &parameters) != 0)
        giveUp("sched_setscheduler");
}

void writeSetting(const char* path, std::string_view text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        std::fprintf(stderr, "vornnet_bench: %s stays as it is\n", path);
    if (fd >= 0)
        ::close(fd);
}

/** A connection per message leaves a port in TIME_WAIT each, and looking for a free one must not become slow.
 */
void keepPortsFree() {
    writeSetting("/proc/sys/net/ipv4/ip_local_port_range", "10000 65000");
    writeSetting("/proc/sys/net/ipv4/tcp_max_tw_buckets", "256");
}

void addAll() {
    addTypedNumbers();
    addStrings();
    addSinkDelivery();
    addNotification();
    addDelivery();
    addEvents();
    addDeadClients();
    addServerCycle();
    addRequest();
    addSentValues();
    addBlocks();
    addUdp();
    addRegistry();
    addLogging();
    addScale();
}

} // namespace

std::string Entry::name() const {
    return workload + "/" + contender + (parameter == 0 ? "" : "/" + std::to_string(parameter));
}

bool isCounting() {
    return g_isCounting;
}

void addEntry(Entry entry) {
    g_entries.push_back(std::move(entry));
}

} // namespace Bench

/**
 * vornnet_bench --list                    shows workload, contender, parameter and units per operation
 * vornnet_bench --operate NAME NUMBER     does NUMBER operations of one contender
 * vornnet_bench [--benchmark_...]         measures with Google Benchmark
 */
int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    Bench::addAll();
    if (arguments.size() == 1 && arguments[0] == "--list")
        return Bench::listEntries();
    VornTest::enterSandbox();
    // The semaphores go with the name space, however the program ends.
    ::unshare(CLONE_NEWIPC);
    Bench::keepPortsFree();
    Bench::pinToOneProcessor();
    std::signal(SIGPIPE, SIG_IGN);
    if (arguments.size() == 3 && arguments[0] == "--operate")
        return Bench::operate(arguments[1], std::atol(arguments[2].c_str()));
    return Bench::measureTimes(argc, argv);
}
