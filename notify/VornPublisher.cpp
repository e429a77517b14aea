// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornPublisher.h"

#include "EventWriter.h"
#include "HomeProcess.h"
#include "PublisherEngine.h"
#include "QuietThread.h"
#include "Wire.h"

#include <Cancellation.h>
#include <GroupId.h>
#include <LogRecord.h>
#include <Probe.h>
#include <VornException.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <system_error>

namespace VornNet {

namespace {

constexpr const char* cInvalidOption = "VornPublisher::VornPublisher: invalid option.";
constexpr const char* cServerFailed = "VornPublisher::VornPublisher: failed to open server.";
constexpr const char* cHistoryFailed = "VornPublisher::VornPublisher: failed to open history.";
constexpr const char* cStartFailed = "VornPublisher::VornPublisher: failed to start.";
constexpr const char* cInvalidTopic = "VornPublisher::addTopic: invalid topic.";
constexpr const char* cAddFailed = "VornPublisher::addTopic: failed to open history.";
constexpr const char* cUnknownTopic = "VornPublisher::publish: unknown topic.";
constexpr const char* cPublishStopped = "VornPublisher::publish: stopped.";
constexpr const char* cNoPosition = "VornPublisher::position: unknown topic.";
constexpr const char* cFlushByHandler = "VornPublisher::flush: called by a handler.";
constexpr const char* cStopByHandler = "VornPublisher::stop: called by a handler.";

constexpr std::size_t cShortestHistory = 4096;

/** Runs a step of opening. @throws VornException with @p text and the error number of what went wrong */
template <typename Step>
auto opening(const char* text, Step&& step) -> decltype(step()) {
    try {
        return step();
    } catch (const std::system_error& e) {
        throw VornException(text, e.code().value());
    } catch (const VornException& e) {
        throw VornException(text, e.getCode());
    } catch (const std::bad_alloc&) {
        throw VornException(text, ENOMEM);
    }
}

bool isSound(const VornPublisher::Options& options, const std::vector<VornString>& topics) {
    constexpr std::chrono::milliseconds cNone(0);
    return std::all_of(topics.begin(), topics.end(),
                       [](const VornString& sTopic) { return Wire::isTopic(sTopic); }) &&
           options.nHistoryBytes >= cShortestHistory && options.nEventLimit > 0 &&
           options.nRequestLimit > 0 && options.requestLimit > cNone && options.beat > cNone &&
           options.stopLimit >= cNone;
}

} // namespace

/** What a publisher consists of, in the order in which it is opened. */
class VORNNOTIFY_LOCAL VornPublisher::State {
public:
    State(const VornString& sAddress, const std::vector<VornString>& topics, const Options& options);
    ~State();

    void addTopic(const VornString& sTopic);
    std::uint64_t publish(const VornString& sTopic, const Writer& write);

    PublisherTopic* find(const VornString& sTopic) const { return m_topics.find(sTopic); }

    void stop(std::chrono::milliseconds timeLimit);

    /** As stop(), on the handlers' thread: the handler that has called exit() never returns. */
    void stopWithinHandler(std::chrono::milliseconds timeLimit);

    bool isForked() const { return m_home.isForked(); }

    const VornString& address() const { return m_sAddress; }

    std::chrono::milliseconds stopLimit() const { return m_options.stopLimit; }

    PublisherEngine& engine() { return *m_engine; }

    bool isHandlerThread() const { return m_handlers.isCurrent(); }

private:
    bool allow(const Options& options);
    void start();
    void endTopics();
    void closeTopics();

    const HomeProcess m_home;
    const Options m_options;
    const std::size_t m_nEventLimit;
    std::optional<PublisherListener> m_listener;
    VornString m_sAddress;
    SenderRules m_rules;
    PublisherTopics m_topics;
    HandlerThread m_handlers;
    std::optional<PublisherEngine> m_engine;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::atomic<bool> m_isStopping{false}; // set under m_mutex
    bool m_isStopped = false;
};

VornPublisher::State::State(const VornString& sAddress, const std::vector<VornString>& topics,
                            const Options& options)
    : m_options(options), m_nEventLimit(std::min(options.nEventLimit, options.nHistoryBytes / 4)) {
    const auto address = ServiceAddress::ofService(sAddress);
    const auto group = options.sPipeGroup.empty() ? std::nullopt : findGroup(options.sPipeGroup);
    if (!address || !isSound(options, topics) || (!group && !options.sPipeGroup.empty()) || !allow(options))
        throw VornException(cInvalidOption, EINVAL);
    opening(cServerFailed, [&] {
        m_listener.emplace(*address, group);
        m_sAddress = m_listener->text();
    });
    opening(cHistoryFailed, [&] {
        for (const VornString& sTopic : topics)
            addTopic(sTopic);
    });
    opening(cStartFailed, [this] { start(); });
}

VornPublisher::State::~State() = default;

void VornPublisher::State::addTopic(const VornString& sTopic) {
    m_topics.add(sTopic, [&] {
        if (m_options.sDirectory.empty())
            return std::make_unique<PublisherTopic>(sTopic, m_options.nHistoryBytes);
        const VornString sPath = m_options.sDirectory + "/" + sTopic + ".history";
        return std::make_unique<PublisherTopic>(sTopic, sPath, m_options.nHistoryBytes);
    });
}

std::uint64_t VornPublisher::State::publish(const VornString& sTopic, const Writer& write) {
    PublisherTopic* topic = m_topics.find(sTopic);
    if (topic == nullptr)
        throw VornException(cUnknownTopic, EINVAL);
    if (m_isStopping.load(std::memory_order_relaxed))
        throw VornException(cPublishStopped, ESHUTDOWN);
    EventWriter content(m_nEventLimit);
    write(content);
    const std::uint64_t nNumber = topic->history.append(content.content());
    if (nNumber == 0)
        throw VornException(cPublishStopped, ESHUTDOWN);
    VORN_PROBE(event__published, topic->sName.c_str(), nNumber);
    m_engine->sendNews();
    return nNumber;
}

void VornPublisher::State::stop(std::chrono::milliseconds timeLimit) {
    const CancellationOff off; // who began it has to end it: others wait for that
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_isStopping) {
            m_changed.wait(lock, [this] { return m_isStopped; });
            return;
        }
        m_isStopping = true;
    }
    endTopics();
    m_engine->stop(timeLimit);
    m_handlers.finish();
    closeTopics();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isStopped = true;
    m_changed.notify_all();
}

void VornPublisher::State::stopWithinHandler(std::chrono::milliseconds timeLimit) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_isStopping)
            return; // another thread has begun, and waits for the handler
        m_isStopping = true;
    }
    endTopics();
    m_engine->stopUndecided(timeLimit);
    closeTopics();
}

/** @return whether the lists of those who may subscribe are lists of such. */
bool VornPublisher::State::allow(const Options& options) {
    m_rules.allowUsers(options.allowedUsers);
    return std::all_of(options.allowedNetworks.begin(), options.allowedNetworks.end(),
                       [this](const VornString& sNetwork) { return m_rules.allowNetwork(sNetwork); });
}

void VornPublisher::State::start() {
    m_engine.emplace(m_options, m_rules, m_topics, *m_listener, m_handlers);
    if (m_options.onSubscribe || m_options.onLeave)
        m_handlers.start(m_options.sName);
    try {
        m_engine->start();
    } catch (...) {
        m_handlers.finish();
        throw;
    }
}

/** From here on nothing is published: what comes too late is told so. */
void VornPublisher::State::endTopics() {
    for (PublisherTopic* topic : m_topics.close())
        topic->history.end();
}

void VornPublisher::State::closeTopics() {
    for (PublisherTopic* topic : m_topics.all())
        topic->history.close();
}

VornPublisher::VornPublisher(const VornString& sAddress, const std::vector<VornString>& topics)
    : VornPublisher(sAddress, topics, Options()) {}

VornPublisher::VornPublisher(const VornString& sAddress, const std::vector<VornString>& topics,
                             const Options& options) try
    : m_spState(std::make_unique<State>(sAddress, topics, options)) {
} catch (const std::bad_alloc&) {

    throw VornException(cStartFailed, ENOMEM);
}

VornPublisher::~VornPublisher() {
    const bool isForked = m_spState->isForked();
    const bool isHandler = m_spState->isHandlerThread();
    if (isForked || (isHandler && QuietThread::isExiting())) {
        // In a child the threads, the pipe's file and the locks on the histories are the parent's, and a
        // handler that has called exit() cannot be waited for.
        State* left = m_spState.release();
        if (!isForked)
            left->stopWithinHandler(left->stopLimit());
        return;
    }
    if (isHandler) {
        logRecord(VornLogging::cError, "VornPublisher::~VornPublisher: destroyed by one of its own handlers");
        std::terminate(); // the thread would have to end before its own call returns
    }
    m_spState->stop(m_spState->stopLimit());
}

VornString VornPublisher::getAddress() const {
    return m_spState->address();
}

void VornPublisher::addTopic(const VornString& sTopic) {
    if (!Wire::isTopic(sTopic))
        throw VornException(cInvalidTopic, EINVAL);
    opening(cAddFailed, [&] { m_spState->addTopic(sTopic); });
}

std::uint64_t VornPublisher::publish(const VornString& sTopic, const Writer& write) {
    return m_spState->publish(sTopic, write);
}

VornPosition VornPublisher::position(const VornString& sTopic) const {
    const PublisherTopic* topic = m_spState->find(sTopic);
    if (topic == nullptr)
        throw VornException(cNoPosition, EINVAL);
    return {topic->history.id(), topic->history.newest()};
}

std::vector<VornPublisher::Subscriber> VornPublisher::subscribers() const {
    return m_spState->engine().subscribers();
}

bool VornPublisher::drop(std::uint64_t nId, const VornString& sReason) {
    return m_spState->engine().drop(nId, sReason);
}

bool VornPublisher::flush(std::chrono::milliseconds timeLimit) {
    if (m_spState->isHandlerThread())
        throw VornException(cFlushByHandler, EDEADLK);
    return m_spState->engine().flush(timeLimit);
}

VornPublisher::Statistics VornPublisher::statistics() const {
    return m_spState->engine().statistics();
}

void VornPublisher::stop(std::chrono::milliseconds timeLimit) {
    if (m_spState->isHandlerThread())
        throw VornException(cStopByHandler, EDEADLK);
    m_spState->stop(timeLimit);
}

const char* VornPublisher::nameOf(Leaving leaving) {
    switch (leaving) {
    case Leaving::closed:
        return "closed";
    case Leaving::lost:
        return "lost";
    case Leaving::violated:
        return "violated";
    case Leaving::dropped:
        return "dropped";
    case Leaving::stopped:
        return "stopped";
    }
    return "unknown";
}

} // namespace VornNet
