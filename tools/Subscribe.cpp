// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "Values.h"

#include <VornSubscriber.h>

#include <chrono>
#include <cstdint>
#include <functional>

#include <poll.h>

namespace VornTool {

using VornNet::VornConnection;
using VornNet::VornPosition;
using VornNet::VornSubscriber;

namespace {

struct SubscribeOptions : CommonOptions {
    std::string address;
    std::string topic;
    std::string since;
    std::string start = "next";
    std::string positionFile;
    std::string content;
    std::string words;
    long count = 0;
};

/** Prints what a subscriber is called for. */
class Watch {
public:
    explicit Watch(const SubscribeOptions& options)
        : m_json(options.json), m_limit(options.count), m_types(parseTypes(options.content)) {}

    /** @return whether that was the last event wanted. */
    bool take(VornConnection& content, const VornSubscriber::Event& event);
    void tellGap(const VornSubscriber::Gap& gap) const;
    void tellState(const VornSubscriber::Status& status) const;

private:
    void print(const VornSubscriber::Event& event, const Content& content) const;

    const bool m_json;
    const long m_limit;
    const std::vector<ValueType> m_types;
    long m_count = 0;
};

bool Watch::take(VornConnection& content, const VornSubscriber::Event& event) {
    print(event, receiveContent(content, m_types));
    return ++m_count == m_limit;
}

void Watch::tellGap(const VornSubscriber::Gap& gap) const {
    Output::either(
        m_json,
        {{"event", "gap"}, {"last", gap.last.text()}, {"next", gap.next.text()}, {"missed", gap.nMissed}},
        gap.nMissed == 0 ? std::string("gap: another history has begun")
                         : "gap: " + std::to_string(gap.nMissed) + " missed");
}

void Watch::tellState(const VornSubscriber::Status& status) const {
    const std::string name = VornSubscriber::nameOf(status.state);
    const std::string reason = printable(status.sReason);
    const std::string why = status.nCode == 0 ? reason : describeFailure(status.nCode, reason);
    Output::either(m_json, {{"event", "state"}, {"state", name}, {"reason", reason}, {"code", status.nCode}},
                   reason.empty() ? name : name + ": " + why);
}

void Watch::print(const VornSubscriber::Event& event, const Content& content) const {
    const std::uint64_t number = event.position.nNumber;
    Json object = {
        {"event", "event"}, {"number", number}, {"position", event.position.text()}, {"old", event.bOld}};
    addTo(object, content);
    Output::either(m_json, object, "event " + std::to_string(number) + describe(content, ": "));
}

VornSubscriber::Start startOf(const std::string& name) {
    if (name == "last")
        return VornSubscriber::Start::last;
    return name == "oldest" ? VornSubscriber::Start::oldest : VornSubscriber::Start::next;
}

VornSubscriber::Options subscriberOptions(const SubscribeOptions& options, Watch& watch) {
    VornSubscriber::Options result;
    result.bOwnThread = false;
    result.start = startOf(options.start);
    if (!options.since.empty())
        result.position = VornPosition::fromText(options.since);
    result.sPositionFile = options.positionFile;
    result.sWords = options.words;
    result.onGap = [&watch](const VornSubscriber::Gap& gap) { watch.tellGap(gap); };
    result.onState = [&watch](const VornSubscriber::Status& status) { watch.tellState(status); };
    return result;
}

int runSubscribe(SubscribeOptions& options) {
    const LibraryRecords records(options.logLevel);
    Interruption interruption(std::chrono::seconds(2));
    Watch watch(options);
    // It is stopped by its own handler, so that no event counts as seen that has not been printed.
    std::function<void()> stop;
    VornSubscriber subscriber(
        options.address, options.topic,
        [&](VornConnection& content, const VornSubscriber::Event& event) {
            if (watch.take(content, event) || Output::isLost())
                stop();
        },
        subscriberOptions(options, watch));
    stop = [&subscriber] { subscriber.stop(); };
    pollfd entry{subscriber.getHandle(), POLLIN, 0};
    while (subscriber.status().state != VornSubscriber::State::stopped && !interruption.isRequested()) {
        constexpr int cPause = 100;
        if (::poll(&entry, 1, cPause) == 1)
            subscriber.dispatch();
    }
    const VornPosition position = subscriber.position();
    Output::either(options.json, {{"event", "position"}, {"position", position.text()}},
                   "position " + position.text());
    return interruption.isRequested() ? interruption.status() : exitDone;
}

} // namespace

void addSubscribe(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<SubscribeOptions>();
    CLI::App* command =
        addCommand(app, "subscribe", "Subscribe at a publisher and print the events", *options);
    command->add_option("ADDRESS", options->address, "The publisher: pipe:NAME, socket:ADDRESS:PORT")
        ->required();
    command->add_option("TOPIC", options->topic, "What to subscribe")->required();
    command
        ->add_option("--start", options->start,
                     "Begin with the next event, the last one, or the oldest that is kept")
        ->type_name("WHERE")
        ->check(CLI::IsMember({"next", "last", "oldest"}));
    command->add_option("--since", options->since, "Go on after that position, as printed at the end")
        ->type_name("POSITION");
    command
        ->add_option("--position-file", options->positionFile,
                     "Go on where the last run with that file has ended")
        ->type_name("FILE");
    command->add_option("--content", options->content, std::string("What an event holds. ") + typesHelp)
        ->type_name("TYPES");
    command->add_option("--words", options->words, "What to tell the service about oneself")
        ->type_name("TEXT");
    command->add_option("--count", options->count, "End after N events")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runSubscribe);
}

} // namespace VornTool
