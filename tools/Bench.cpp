// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Address.h"
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "LibraryRecords.h"
#include "Output.h"

#include <VornDispatcher.h>
#include <VornException.h>
#include <VornNotificationCallback.h>
#include <VornPublisher.h>
#include <VornSteadySink.h>
#include <VornSubscriber.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include <unistd.h>

namespace VornTool {

using VornNet::VornConnection;
using VornNet::VornDispatcher;
using VornNet::VornNotification;
using VornNet::VornNotificationCallback;
using VornNet::VornProxyDependent;
using VornNet::VornPublisher;
using VornNet::VornSteadySink;
using VornNet::VornSubscriber;
using VornSupport::VornException;
using VornSupport::VornSmartPointer;

namespace {

using Clock = std::chrono::steady_clock;
using Kind = VornSteadySink::Kind;

struct BenchOptions : CommonOptions {
    std::string address;
    long handle = 0;
    bool local = false;
    double seconds = 1;
};

/** How long a job may run, and how long it has run. */
class Turn {
public:
    Turn(const BenchOptions& options, const Interruption& interruption)
        : m_interruption(interruption), m_start(Clock::now()),
          m_end(m_start + std::chrono::microseconds(static_cast<long>(options.seconds * 1'000'000))) {}

    bool isOver() const { return m_interruption.isRequested() || Clock::now() >= m_end; }

    double elapsed() const { return std::chrono::duration<double>(Clock::now() - m_start).count(); }

private:
    const Interruption& m_interruption;
    const Clock::time_point m_start;
    const Clock::time_point m_end;
};

/** What was done on one transport. */
struct Rate {
    const char* job = "";
    std::string transport;
    std::uint64_t count = 0;
    double seconds = 0;
};

void print(const BenchOptions& options, const Rate& rate) {
    const double perSecond = static_cast<double>(rate.count) / rate.seconds;
    if (options.json) {
        Output::json({{"job", rate.job},
                      {"transport", rate.transport},
                      {"count", rate.count},
                      {"seconds", rate.seconds},
                      {"per_second", perSecond}});
        return;
    }
    std::array<char, 80> line;
    std::snprintf(line.data(), line.size(), "%-13s  %-6s  %9.0f per second", rate.job, rate.transport.c_str(),
                  perSecond);
    Output::line(line.data());
}

/** Counts its notifications, whose content it need not read. */
class CountingCallback : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

    std::uint64_t count() const { return m_count; }

private:
    void doCallback(VornSmartPointer<VornConnection>& /*spConnection*/) override { ++m_count; }

    std::atomic<std::uint64_t> m_count{0};
};

/** Posts until the turn is over. @return how many were delivered by then, of datagrams how many were sent */
Rate notify(const std::string& address, long handle, const BenchOptions& options,
            const Interruption& interruption) {
    constexpr std::size_t cQueued = 256;
    VornDispatcher::Options settings;
    settings.overflow = VornDispatcher::Overflow::wait;
    settings.nQueueLimit = cQueued;
    settings.datagramPause = std::chrono::microseconds(0);
    settings.stopLimit = std::chrono::milliseconds(0);
    settings.terms.timeLimit = std::chrono::milliseconds(static_cast<long>(options.seconds * 1000) + 1000);
    VornDispatcher dispatcher(settings);
    VornProxyDependent proxy(address, handle);
    const Turn turn(options, interruption);
    try {
        while (!turn.isOver())
            dispatcher.post(proxy, VornNotification(0));
    } catch (const VornException&) {
        // The queue has been full all the time, which the sum tells.
    }
    const double seconds = turn.elapsed();
    const VornDispatcher::Statistics sums = dispatcher.statistics();
    dispatcher.flush(std::chrono::seconds(1));
    return {"notifications", address.substr(0, address.find(':')), sums.nDelivered + sums.nSent, seconds};
}

/** From a dispatcher to a steady sink, both in this process. */
Rate notifyLocally(Kind kind, const BenchOptions& options, const Interruption& interruption) {
    VornSteadySink::Options settings;
    settings.kind = kind;
    settings.sBindAddress = kind == Kind::pipe ? "" : "127.0.0.1";
    VornSteadySink sink("bench", settings);
    const VornSmartPointer<CountingCallback> spCallback =
        new CountingCallback(sink.getCallbackContainer().getNewId());
    sink.getCallbackContainer().add(&*spCallback);
    Rate rate = notify(sink.getCallbackAddress(), spCallback->getId(), options, interruption);
    if (kind == Kind::udp)
        rate.count = spCallback->count(); // what was sent need not have arrived
    return rate;
}

/** From a publisher to a subscriber, both in this process. */
Rate publishLocally(const std::string& address, const BenchOptions& options,
                    const Interruption& interruption) {
    constexpr std::uint64_t cAhead = 10'000; // fewer than the history holds, so that there is no gap
    const std::string topic = "bench";
    std::atomic<std::uint64_t> count{0};
    VornPublisher publisher(address, {topic});
    VornSubscriber subscriber(publisher.getAddress(), topic,
                              [&count](VornConnection&, const VornSubscriber::Event&) { ++count; });
    while (publisher.statistics().nSubscribers == 0 && !interruption.isRequested())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const Turn turn(options, interruption);
    for (std::uint64_t published = 0; !turn.isOver();) {
        if (published - count < cAhead)
            published = publisher.publish(topic, [](VornConnection& content) {
                content.transfer(0L);
                content.transfer(0L);
            });
        else
            std::this_thread::yield();
    }
    const double seconds = turn.elapsed();
    return {"events", address.substr(0, address.find(':')), count, seconds};
}

void runLocally(const BenchOptions& options, const Interruption& interruption) {
    for (const Kind kind : {Kind::pipe, Kind::tcp, Kind::udp}) {
        if (!interruption.isRequested())
            print(options, notifyLocally(kind, options, interruption));
    }
    for (const std::string& address :
         {"pipe:vornnet-bench-" + std::to_string(::getpid()), std::string("socket:127.0.0.1:0")}) {
        if (!interruption.isRequested())
            print(options, publishLocally(address, options, interruption));
    }
}

void runAgainst(const BenchOptions& options, const Interruption& interruption) {
    requireKnownHost(parseAddress(options.address));
    const Rate rate = notify(options.address, options.handle, options, interruption);
    if (rate.count == 0)
        throw ToolError(exitUnreachable,
                        options.address + ": nothing was delivered; vornnet ping tells whether it accepts");
    print(options, rate);
}

int runBench(BenchOptions& options) {
    if (options.local == !options.address.empty())
        throw ToolError(exitUsage, "one of ADDRESS and --local is needed");
    const LibraryRecords records(options.logLevel);
    const Interruption interruption(std::chrono::seconds(2));
    try {
        if (options.local)
            runLocally(options, interruption);
        else
            runAgainst(options, interruption);
    } catch (const VornException& error) {
        throw ToolError(exitFailed, describeFailure(error.getCode(), error.getText()));
    }
    return interruption.status();
}

} // namespace

void addBench(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<BenchOptions>();
    CLI::App* command = addCommand(
        app, "bench", "Measure what this host, or a sink, does per second on each transport", *options);
    command->add_option("ADDRESS", options->address,
                        std::string("A sink made for it, such as that of vornnet sink --steady: ") +
                            addressHelp);
    command->add_option("HANDLE", options->handle, "Its callback, which is called for each notification (0)");
    command->add_flag("--local", options->local, "Both ends in this process, on each transport in turn");
    command->add_option("--seconds", options->seconds, "How long each job takes (1)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.01, 3600.0));
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runBench);
}

} // namespace VornTool
