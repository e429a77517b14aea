// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "PipeFiles.h"
#include "SinkObstacle.h"
#include "Usage.h"
#include "Values.h"

#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>
#include <VornSteadySink.h>

#include <atomic>
#include <chrono>
#include <cstdlib>

#include <unistd.h>

namespace VornTool {

using VornNet::VornConnection;
using VornNet::VornLibraryCallbackSink;
using VornNet::VornNotificationCallback;
using VornNet::VornSteadySink;
using VornSupport::VornException;
using VornSupport::VornSmartPointer;

namespace {

struct SinkOptions : CommonOptions {
    std::string type;
    bool steady = false;
    int callbacks = 1;
    std::string content;
    long count = 0;
};

/** What the callbacks of one sink share. */
class Reception {
public:
    Reception(const SinkOptions& options, Interruption& interruption)
        : m_json(options.json), m_limit(options.count), m_types(parseTypes(options.content)),
          m_interruption(interruption) {
        m_types.insert(m_types.begin(), ValueType::Long);
    }

    bool isComplete() const { return m_limit > 0 && m_count >= m_limit; }

    /** Reads one notification of the callback @p handle and prints it; on the sink's thread. */
    void take(int handle, VornConnection& connection);

    void printAddress(const std::string& address) const;

private:
    void print(int handle, long id, const Content& content);

    const bool m_json;
    const long m_limit;
    std::vector<ValueType> m_types; // the first is the id
    Interruption& m_interruption;
    std::atomic<long> m_count{0};
};

void Reception::take(int handle, VornConnection& connection) {
    if (isComplete())
        return;
    // All is read, so that the sender closes first and a TCP sink keeps its port. And nothing may leave a
    // callback: by its number an error could end the sink.
    Content content = receiveContent(connection, m_types);
    long id = 0;
    if (!content.values.empty()) {
        id = content.values.front().number;
        content.values.erase(content.values.begin());
    }
    print(handle, id, content);
    m_interruption.wake();
}

void Reception::print(int handle, long id, const Content& content) {
    const long number = ++m_count;
    // Ids are ints, of which the wire carries the 32 bits without their sign.
    const int signedId = static_cast<int>(id);
    if (m_json) {
        const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::system_clock::now().time_since_epoch());
        Json object = {{"event", "notification"},
                       {"number", number},
                       {"time", timeText(now, 3)},
                       {"handle", handle},
                       {"id", signedId}};
        addTo(object, content);
        Output::json(object);
        return;
    }
    Output::line("notification " + std::to_string(number) + ": handle " + std::to_string(handle) + ", id " +
                 std::to_string(signedId) + describe(content, ", "));
}

void Reception::printAddress(const std::string& address) const {
    Output::either(m_json, {{"event", "address"}, {"address", address}}, "address " + address);
}

class PrintingCallback : public VornNotificationCallback {
public:
    PrintingCallback(int id, Reception& reception) : VornNotificationCallback(id), m_reception(reception) {}

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        m_reception.take(getId(), *spConnection);
    }

private:
    Reception& m_reception;
};

void prepare(const SinkOptions& options) {
    if (!options.type.empty())
        ::setenv(sinkTypeVariable, options.type.c_str(), 1);
    if (const auto obstacle = sinkObstacle(effectiveSinkType()))
        throw ToolError(exitFailed, obstacle->text + "; " + obstacle->remedy);
}

/** Whether the sink has ended by itself. @{ */
bool hasEnded(VornLibraryCallbackSink& sink) {
    return sink.wait(0);
}

bool hasEnded(VornSteadySink& /*sink*/) {
    return false;
}

/** @} */

/** Serves until there is a reason to end. @return the exit status */
template <typename Sink>
int serve(Sink& sink, const Reception& reception, Interruption& interruption) {
    constexpr std::chrono::milliseconds cPause(50);
    std::string address = sink.getCallbackAddress();
    reception.printAddress(address);
    for (;;) {
        if (reception.isComplete())
            return exitDone;
        if (interruption.isRequested())
            return interruption.status();
        if (Output::isLost())
            return exitFailed;
        // Nothing tells of a new address or of the end of the sink's thread, so both are asked for.
        if (hasEnded(sink)) {
            Output::error(
                "the sink has ended: an empty datagram or a connection reset by its sender does that");
            return exitFailed;
        }
        const std::string newAddress = sink.getCallbackAddress();
        if (newAddress != address) {
            address = newAddress;
            reception.printAddress(address);
        }
        interruption.awaitChange(cPause);
    }
}

void addCallbacks(VornNet::VornCallbackContainer& container, int count, Reception& reception) {
    for (int i = 0; i < count; ++i)
        container.add(new PrintingCallback(container.getNewId(), reception));
}

std::string pipePathOf(const std::string& address) {
    const std::string prefix = "pipe:";
    return address.rfind(prefix, 0) == 0 ? pipePath(address.substr(prefix.size())) : "";
}

int runSteadySink(const SinkOptions& options, Reception& reception, Interruption& interruption) {
    const LibraryRecords records(options.logLevel);
    try {
        VornSteadySink sink("vornnet");
        addCallbacks(sink.getCallbackContainer(), options.callbacks, reception);
        return serve(sink, reception, interruption);
    } catch (const VornException& error) {
        throw ToolError(exitFailed, describeFailure(error.getCode(), error.getText()));
    }
}

int runLibrarySink(const SinkOptions& options, Reception& reception, Interruption& interruption) {
    std::atomic<bool> starting{true};
    const LibraryRecords records(options.logLevel, [&starting](const std::string& text) {
        // The sink's constructor waits forever when its thread has failed, and a record is the only sign.
        if (starting && text.find("ended thread") != std::string::npos) {
            Output::error("the sink cannot be started: " + text);
            ::_exit(exitFailed);
        }
    });
    int status = exitDone;
    std::string pipe;
    {
        VornLibraryCallbackSink sink("vornnet");
        starting = false;
        addCallbacks(sink.getCallbackContainer(), options.callbacks, reception);
        pipe = pipePathOf(sink.getCallbackAddress());
        status = serve(sink, reception, interruption);
    }
    // The library leaves the file of a closed pipe server, and the next one to look would take it for dead.
    if (!pipe.empty())
        removeIfDead(pipe);
    return status;
}

int runSink(SinkOptions& options) {
    prepare(options);
    Interruption interruption(std::chrono::seconds(2));
    Reception reception(options, interruption);
    return options.steady ? runSteadySink(options, reception, interruption)
                          : runLibrarySink(options, reception, interruption);
}

} // namespace

void addSink(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<SinkOptions>();
    CLI::App* command = addCommand(app, "sink", "Receive notifications and print them", *options);
    command
        ->add_option(
            "--type", options->type,
            "Transport: pipe, socket (TCP) or udp; by default as QUORAX_CALLB_CONN_TYPE says, or pipe")
        ->type_name("TRANSPORT")
        ->check(CLI::IsMember({"pipe", "socket", "udp"}));
    command->add_flag("--steady", options->steady,
                      "Receive by a sink that stays open, so that no notification of a burst is lost");
    command->add_option("--callbacks", options->callbacks, "Register N callbacks, with the ids 0 to N-1")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000));
    command
        ->add_option("--content", options->content,
                     std::string("What follows the id of a notification. ") + typesHelp)
        ->type_name("TYPES");
    command->add_option("--count", options->count, "End after N notifications")
        ->type_name("N")
        ->check(atLeastOne());
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runSink);
}

} // namespace VornTool
