// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "Values.h"

#include <VornPublisher.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <sstream>

#include <poll.h>
#include <unistd.h>

namespace VornTool {

using VornNet::VornConnection;
using VornNet::VornPublisher;

namespace {

struct PublishOptions : CommonOptions {
    std::string address;
    std::string topic;
    std::string directory;
    bool values = false;
};

/** The lines of standard input, which a request to end the program interrupts. */
class InputLines {
public:
    explicit InputLines(const Interruption& interruption) : m_interruption(interruption) {}

    /** Waits for the next line. @return false at the end, or when the program is to end */
    bool next(std::string& line);

private:
    bool fill();

    const Interruption& m_interruption;
    std::string m_bytes;
    bool m_isAtEnd = false;
};

bool InputLines::next(std::string& line) {
    std::size_t length = m_bytes.find('\n');
    while (length == std::string::npos && fill())
        length = m_bytes.find('\n');
    if (m_interruption.isRequested() || m_bytes.empty())
        return false;
    line = m_bytes.substr(0, length);
    m_bytes.erase(0, length == std::string::npos ? length : length + 1);
    return true;
}

bool InputLines::fill() {
    constexpr int cPause = 100;
    while (!m_isAtEnd && !m_interruption.isRequested()) {
        pollfd input{STDIN_FILENO, POLLIN, 0};
        if (::poll(&input, 1, cPause) != 1)
            continue;
        std::array<char, 4096> piece;
        const ssize_t count = ::read(STDIN_FILENO, piece.data(), piece.size());
        if (count > 0) {
            m_bytes.append(piece.data(), static_cast<std::size_t>(count));
            return true;
        }
        m_isAtEnd = count == 0 || errno != EINTR;
    }
    return false;
}

std::vector<Value> valuesOf(const std::string& line, bool areSeveral) {
    if (!areSeveral)
        return {Value{ValueType::String, 0, line}};
    std::istringstream words(line);
    std::vector<std::string> texts;
    for (std::string text; words >> text;)
        texts.push_back(text);
    return parseValues(texts);
}

/** @param announcing is locked until the address has been told, which comes first */
VornPublisher::Options publisherOptions(const PublishOptions& options, std::mutex& announcing) {
    VornPublisher::Options result;
    result.sDirectory = options.directory;
    result.onSubscribe = [json = options.json, &announcing](const VornPublisher::Subscriber& asking) {
        const std::lock_guard afterTheAddress(announcing);
        Output::either(json, {{"event", "subscriber"}, {"id", asking.nId}, {"from", asking.sFrom}},
                       "subscriber " + std::to_string(asking.nId) + ": " + printable(asking.sFrom));
        return VornSupport::VornString();
    };
    result.onLeave = [json = options.json](const VornPublisher::Subscriber& gone,
                                           VornPublisher::Leaving leaving, int code) {
        const char* const why = VornPublisher::nameOf(leaving);
        Output::either(json, {{"event", "left"}, {"id", gone.nId}, {"reason", why}, {"code", code}},
                       "subscriber " + std::to_string(gone.nId) + ": " +
                           (code == 0 ? why : describeFailure(code, why)));
    };
    return result;
}

void publishLine(VornPublisher& publisher, const PublishOptions& options, const std::string& line) {
    const std::vector<Value> values = valuesOf(line, options.values);
    const std::uint64_t number = publisher.publish(options.topic, [&](VornConnection& content) {
        for (const Value& value : values)
            sendValue(content, value);
    });
    Output::either(options.json, {{"event", "event"}, {"number", number}, {"values", toJson(values)}},
                   "event " + std::to_string(number));
}

int runPublish(PublishOptions& options) {
    const LibraryRecords records(options.logLevel);
    Interruption interruption(std::chrono::seconds(2));
    std::mutex announcing;
    std::unique_lock announced(announcing);
    VornPublisher publisher(options.address, {options.topic}, publisherOptions(options, announcing));
    Output::either(options.json, {{"event", "address"}, {"address", publisher.getAddress()}},
                   "address " + publisher.getAddress());
    announced.unlock();
    InputLines lines(interruption);
    for (std::string line; lines.next(line) && !Output::isLost();)
        publishLine(publisher, options, line);
    publisher.stop(std::chrono::seconds(interruption.isRequested() ? 0 : 5));
    return interruption.isRequested() ? interruption.status() : exitDone;
}

} // namespace

void addPublish(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<PublishOptions>();
    CLI::App* command =
        addCommand(app, "publish", "Publish the lines of standard input to subscribers", *options);
    command
        ->add_option("ADDRESS", options->address, "Where clients subscribe: pipe:NAME, socket:ADDRESS:PORT")
        ->required();
    command->add_option("TOPIC", options->topic, "What they subscribe")->required();
    command
        ->add_option("--directory", options->directory,
                     "Keep the events in a file there, for subscribers that come back")
        ->type_name("DIRECTORY");
    command->add_flag("--values", options->values,
                      std::string("A line has several values, with blanks between. ") + valueHelp);
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runPublish);
}

} // namespace VornTool
