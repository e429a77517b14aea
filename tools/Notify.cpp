// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Address.h"
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "Values.h"

#include <VornDispatcher.h>
#include <VornException.h>
#include <VornProxyDependent.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

namespace VornTool {

using VornNet::VornConnection;
using VornNet::VornDispatcher;
using VornNet::VornProxyDependent;
using VornSupport::VornException;
using VornSupport::VornNotification;

using Outcome = VornDispatcher::Outcome;

namespace {

struct NotifyOptions : CommonOptions {
    std::string address;
    long handle = 0;
    int id = 0;
    std::vector<std::string> values;
    long repeat = 1;
    long every = 0;
    double timeout = 0;
    bool confirm = false;

    std::chrono::milliseconds limit() const {
        return std::chrono::milliseconds(static_cast<long>(timeout * 1000));
    }
};

/** A proxy that sends the operator's values after the notification's id. */
class ValueProxy : public VornProxyDependent {
public:
    ValueProxy(const Address& address, long handle, std::vector<Value> values)
        : VornProxyDependent(address.text, handle), m_values(std::move(values)) {}

    void addContent(VornConnection& connection, const VornNotification& notification) override {
        VornProxyDependent::addContent(connection, notification);
        for (const Value& value : m_values)
            sendValue(connection, value);
    }

private:
    const std::vector<Value> m_values;
};

/** Counts what came of the notifications; printed by the signal thread when that has to end the program. */
class Tally {
public:
    explicit Tally(const NotifyOptions& options)
        : m_address(options.address), m_json(options.json), m_start(Clock::now()) {}

    void addSent();
    void addFailure(int code, const std::string& text);
    std::string progress(long total) const;
    void print() const;
    int exitStatus() const;

private:
    using Clock = std::chrono::steady_clock;

    struct Failure {
        long count = 0;
        std::string text;
    };

    std::string describeFailures() const;

    const std::string m_address;
    const bool m_json;
    const Clock::time_point m_start;
    mutable std::mutex m_mutex;
    long m_sent = 0; // guarded by m_mutex, as what follows
    long m_failed = 0;
    std::map<int, Failure> m_failures; // by error number
};

void Tally::addSent() {
    const std::lock_guard lock(m_mutex);
    ++m_sent;
}

void Tally::addFailure(int code, const std::string& text) {
    const std::lock_guard lock(m_mutex);
    ++m_failed;
    ++m_failures[code].count;
    m_failures[code].text = text;
}

std::string Tally::progress(long total) const {
    const std::lock_guard lock(m_mutex);
    return "sent " + std::to_string(m_sent) + ", refused " + std::to_string(m_failed) + " of " +
           std::to_string(total);
}

std::string Tally::describeFailures() const {
    std::string result;
    for (const auto& [code, failure] : m_failures) {
        result += result.empty() ? " (" : "; ";
        result += std::to_string(code) + " " + (code != 0 ? std::strerror(code) : failure.text.c_str()) +
                  ": " + std::to_string(failure.count);
    }
    return result.empty() ? result : result + ")";
}

void Tally::print() const {
    const std::lock_guard lock(m_mutex);
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_start);
    if (!m_json) {
        Output::line("sent " + std::to_string(m_sent) + ", refused " + std::to_string(m_failed) +
                     describeFailures());
        return;
    }
    Json errors = Json::array();
    for (const auto& [code, failure] : m_failures)
        errors.push_back({{"code", code}, {"text", failure.text}, {"count", failure.count}});
    Output::json({{"address", m_address},
                  {"sent", m_sent},
                  {"refused", m_failed},
                  {"errors", errors},
                  {"milliseconds", elapsed.count()}});
}

int Tally::exitStatus() const {
    const std::lock_guard lock(m_mutex);
    if (m_failed == 0)
        return exitDone;
    if (m_sent > 0)
        return exitIncomplete;
    const auto& [code, failure] = *m_failures.begin();
    return statusOfFailure(code, failure.text);
}

/**
 * Sends through a dispatcher, and prints what became of each notification when it is known.
 *
 * What has no outcome when it is destroyed is stopped, and printed so.
 */
class Confirmation {
public:
    /** @param timeLimit of each notification; 0 for the dispatcher's own */
    Confirmation(std::chrono::milliseconds timeLimit, bool bJson);

    /** @throws ToolError for an address that a dispatcher does not take */
    void post(VornProxyDependent& proxy, const VornNotification& notification);

    /** Waits for the outcomes, @p limit at a time. @return whether all are known */
    bool await(std::chrono::milliseconds limit) { return m_dispatcher.flush(limit); }

    /** Gives up what has no outcome. */
    void stop() { m_dispatcher.stop(std::chrono::milliseconds(0)); }

    /** @return the program's exit status, once all outcomes are known. */
    int exitStatus() const;

private:
    VornDispatcher::Options optionsFor(std::chrono::milliseconds timeLimit);
    void print(const VornDispatcher::Result& result);

    const bool m_bJson;
    mutable std::mutex m_mutex;
    VornDispatcher::Result m_lastFailure; // guarded by m_mutex
    VornDispatcher m_dispatcher;          // last: its handler uses the others
};

bool isDone(Outcome outcome) {
    return outcome == Outcome::delivered || outcome == Outcome::sent;
}

std::string counted(unsigned int count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

Confirmation::Confirmation(std::chrono::milliseconds timeLimit, bool bJson)
    : m_bJson(bJson), m_dispatcher(optionsFor(timeLimit)) {}

void Confirmation::post(VornProxyDependent& proxy, const VornNotification& notification) {
    try {
        m_dispatcher.post(proxy, notification);
    } catch (const VornException& error) {
        if (error.getCode() != EINVAL)
            throw;
        throw ToolError(exitUsage, "with --confirm an address is pipe:NAME, or socket: or udp: with a dotted "
                                   "address and a port");
    }
}

int Confirmation::exitStatus() const {
    const VornDispatcher::Statistics sums = m_dispatcher.statistics();
    const std::lock_guard lock(m_mutex);
    if (sums.nDelivered + sums.nSent == sums.nPosted)
        return exitDone;
    if (sums.nDelivered + sums.nSent > 0)
        return exitIncomplete;
    switch (m_lastFailure.outcome) {
    case Outcome::unread:
        return exitRefused;
    case Outcome::expired:
        return statusOfFailure(m_lastFailure.nCode, "");
    default:
        return exitFailed;
    }
}

VornDispatcher::Options Confirmation::optionsFor(std::chrono::milliseconds timeLimit) {
    VornDispatcher::Options options;
    if (timeLimit > std::chrono::milliseconds(0))
        options.terms.timeLimit = timeLimit;
    options.overflow = VornDispatcher::Overflow::wait;
    options.stopLimit = std::chrono::milliseconds(0);
    options.onResult = [this](const VornDispatcher::Result& result) { print(result); };
    return options;
}

void Confirmation::print(const VornDispatcher::Result& result) {
    if (!isDone(result.outcome)) {
        const std::lock_guard lock(m_mutex);
        m_lastFailure = result;
    }
    const std::string outcome = VornDispatcher::nameOf(result.outcome);
    if (m_bJson) {
        Output::json({{"notification", result.nTicket},
                      {"address", result.sAddress},
                      {"outcome", outcome},
                      {"code", result.nCode},
                      {"tries", result.nTries},
                      {"doubtful", result.nDoubtfulTries},
                      {"microseconds", result.elapsed.count()}});
        return;
    }
    char milliseconds[32];
    std::snprintf(milliseconds, sizeof milliseconds, "%.2f",
                  static_cast<double>(result.elapsed.count()) / 1000);
    std::string text = "notification " + std::to_string(result.nTicket) + ": " + outcome + ", " +
                       counted(result.nTries, "try", "tries") + ", " + milliseconds + " ms";
    if (result.nDoubtfulTries > 0)
        text += ", " + std::to_string(result.nDoubtfulTries) + " of them doubtful";
    if (!isDone(result.outcome) && result.nCode != 0)
        text += " (" + std::to_string(result.nCode) + " " + std::strerror(result.nCode) + ")";
    Output::line(text);
}

/** Sees what remoteNotify() does not tell: a datagram that is too long is dropped silently. */
void requireFitsDatagram(const Address& address, const std::vector<Value>& values) {
    constexpr std::size_t cLargestDatagram = 65507;
    std::size_t size = 16; // handle and id
    for (const Value& value : values)
        size += encoded(value).size();
    if (address.kind == Address::Kind::Udp && size > cLargestDatagram)
        throw ToolError(exitUsage, "the notification has " + std::to_string(size) +
                                       " bytes, a datagram takes " + std::to_string(cLargestDatagram));
}

/** The error number in "...transmit: failed to send data (rc:101) to ...". */
int codeInRecord(const std::string& text) {
    const std::size_t mark = text.find("(rc");
    return mark == std::string::npos ? 0
                                     : static_cast<int>(std::strtol(text.c_str() + mark + 4, nullptr, 10));
}

void sendOne(ValueProxy& proxy, const VornNotification& notification, Tally& tally, std::string& record) {
    try {
        record.clear();
        proxy.remoteNotify(notification);
        // A datagram that the system refuses is told of in a record only.
        if (record.find("VornUDPSocketConnection::transmit") != std::string::npos)
            tally.addFailure(codeInRecord(record), record);
        else
            tally.addSent();
    } catch (const VornException& error) {
        tally.addFailure(error.getCode(), error.getText());
    }
}

int runConfirmed(const NotifyOptions& options, ValueProxy& proxy) {
    const LibraryRecords records(options.logLevel, [](const std::string&) {});
    Interruption interruption(std::chrono::milliseconds(300));
    Confirmation confirmation(options.limit(), options.json);
    const VornNotification notification(options.id);
    for (long i = 0; i < options.repeat; ++i) {
        if (i > 0 && !interruption.sleepFor(std::chrono::milliseconds(options.every)))
            break;
        confirmation.post(proxy, notification);
    }
    while (!interruption.isRequested() && !confirmation.await(std::chrono::milliseconds(100))) {
    }
    confirmation.stop();
    return interruption.isRequested() ? interruption.status() : confirmation.exitStatus();
}

int runNotify(NotifyOptions& options) {
    const Address address = parseAddress(options.address);
    const std::vector<Value> values = parseValues(options.values);
    requireFitsDatagram(address, values);
    requireKnownHost(address);
    ValueProxy proxy(address, options.handle, values);
    if (options.confirm)
        return runConfirmed(options, proxy);
    std::string record;
    const LibraryRecords records(options.logLevel, [&record](const std::string& text) { record = text; });
    Tally tally(options);
    Progress progress;
    Interruption interruption(std::chrono::milliseconds(300), options.limit());
    interruption.onForcedEnd([&] {
        progress.clear();
        tally.print();
    });
    const VornNotification notification(options.id);
    for (long i = 0; i < options.repeat; ++i) {
        if (i > 0 && !interruption.sleepFor(std::chrono::milliseconds(options.every)))
            break;
        sendOne(proxy, notification, tally, record);
        if (options.repeat > 1)
            progress.update(tally.progress(options.repeat));
    }
    progress.clear();
    interruption.onForcedEnd(nullptr);
    tally.print();
    return interruption.isRequested() ? interruption.status() : tally.exitStatus();
}

} // namespace

void addNotify(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<NotifyOptions>();
    CLI::App* command = addCommand(app, "notify", "Send notifications to a sink", *options);
    command->add_option("ADDRESS", options->address, std::string("Callback address: ") + addressHelp)
        ->required();
    command->add_option("HANDLE", options->handle, "Id of the callback; write -- before a negative one")
        ->required()
        ->check(CLI::Range(-2147483648L, 4294967295L));
    command->add_option("ID", options->id, "Id of the notification")->required();
    command->add_option("VALUE", options->values, std::string("What follows the id. ") + valueHelp);
    command->add_option("--repeat", options->repeat, "Send it N times")
        ->type_name("N")
        ->check(CLI::Range(1L, 1000000000L));
    command->add_option("--every", options->every, "Wait MS milliseconds between two of them")
        ->type_name("MS")
        ->check(CLI::Range(0L, 86400000L));
    command
        ->add_option("--timeout", options->timeout,
                     "Give up after SECONDS; without it a full queue blocks the sender without end")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 1000000.0));
    command->add_flag(
        "--confirm", options->confirm,
        "Send by a dispatcher: try again until SECONDS are over (10), and tell what became of each");
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runNotify);
}

} // namespace VornTool
