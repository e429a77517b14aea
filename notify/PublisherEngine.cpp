// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PublisherEngine.h"

#include "HandlerCall.h"
#include "Wire.h"

#include <Cancellation.h>
#include <Probe.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace VornNet {

namespace {

using std::chrono::milliseconds;
using Leaving = VornPublisher::Leaving;

constexpr const char* cNoSink = "the callback address does not answer";
constexpr const char* cServiceStops = "the service stops";
constexpr const char* cSubscribeThrown = "VornPublisher::onSubscribe: the handler threw: ";
constexpr const char* cLeaveThrown = "VornPublisher::onLeave: the handler threw: ";

/** Batches that are sent between two looks at what the clients do. */
constexpr std::size_t cBatchesAtATime = 64;

/** An event that is published so soon after the last sending is not sent by the one who publishes it. */
constexpr std::chrono::microseconds cGathering{5};

/** Most subscribers that one who publishes sends to. */
constexpr std::size_t cSentToHere = 4;

/** Most that is waited after the goodbye until the clients close. */
constexpr milliseconds cGoodbyeLimit{1'000};

/** @return the beat as the clients are told it. */
std::uint32_t clampedBeat(milliseconds beat) {
    return static_cast<std::uint32_t>(
        std::min<milliseconds::rep>(beat.count(), std::numeric_limits<int>::max()));
}

VornString lastFrame(std::uint32_t ending, std::string_view reason) {
    reason = reason.substr(0, Wire::cLongestReason - Wire::cLastHead);
    VornString sFrame;
    Wire::appendInt(sFrame, Wire::cLast);
    Wire::appendInt(sFrame, static_cast<std::uint32_t>(Wire::cLastHead + reason.size()));
    Wire::appendInt(sFrame, ending);
    Wire::appendText(sFrame, reason);
    return sFrame;
}

} // namespace

PublisherEngine::PublisherEngine(const VornPublisher::Options& options, const SenderRules& rules,
                                 const PublisherTopics& topics, PublisherListener& listener,
                                 HandlerThread& handlers)
    : m_options(options), m_topics(topics), m_handlers(handlers), m_nBeat(clampedBeat(options.beat)),
      m_book(topics), m_connections(*m_poll, options.nRequestLimit),
      m_door(options, rules, topics, listener, *m_poll, m_connections, m_book),
      // Over TCP a client that takes nothing may be none any more; over a pipe the kernel would tell.
      m_sender(m_connections, m_book, options.beat,
               listener.isPipe() ? milliseconds::max() : 3 * milliseconds(m_nBeat)),
      m_callbacks(m_connections, m_book, m_sender) {}

void PublisherEngine::start() {
    if (m_options.bCallbackAddresses)
        m_callbacks.start(m_options.sName, [this](const VornDispatcher::Result& result) {
            leaveCommand({Command::What::note, result.nTicket, {}});
        });
    m_thread.start(m_options.sName, [this] { run(); });
}

void PublisherEngine::sendNews() {
    const CancellationOff off; // what was begun is finished, and nobody else wakes the thread
    if (!sendHere())
        wakeUp();
}

bool PublisherEngine::drop(std::uint64_t nId, const VornString& sReason) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_commands.push_back({Command::What::drop, nId, sReason});
        if (!m_book.noteDrop(nId)) {
            m_commands.pop_back();
            return false;
        }
        m_hasCommands = true;
    }
    wakeUp();
    return true;
}

void PublisherEngine::stop(milliseconds timeLimit) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_wantsStop = true;
        m_stopAt = Deadline::ofWait(timeLimit);
        m_hasCommands = true;
    }
    wakeUp();
    m_thread.join();
    m_callbacks.stop();
    // Somebody may still be on the way to wake the thread.
    const std::lock_guard<std::mutex> lock(m_wakeMutex);
    m_poll.reset();
}

void PublisherEngine::stopUndecided(milliseconds timeLimit) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isUndecided = true;
    }
    stop(timeLimit);
}

void PublisherEngine::wakeUp() {
    // The thread says that it sleeps, and then looks once more whether there is anything to do; so one of the
    // two sees the other.
    if (!m_isAsleep.load(std::memory_order_seq_cst))
        return;
    if (!m_isAsleep.exchange(false, std::memory_order_seq_cst)) // GCOVR_EXCL_BR_LINE: no test gets in between
        return;                                                 // GCOVR_EXCL_LINE: another thread wakes it
    const CancellationOff off;                                  // nobody else wakes it now
    const std::lock_guard<std::mutex> lock(m_wakeMutex);
    if (m_poll) // GCOVR_EXCL_BR_LINE: no test gets between another thread's look and its lock
        m_poll->wakeUp();
}

/**
 * Sends what there is while the thread sleeps, so that an event that comes alone saves its waking; not when
 * events come one after the other, which cost less together, and not for many subscribers.
 * @return whether nothing is left to do
 */
bool PublisherEngine::sendHere() {
    if (!m_isAsleep.load(std::memory_order_seq_cst))
        return false;
    const std::unique_lock<std::mutex> turn(m_turn, std::try_to_lock);
    if (turn && m_isStopping) // GCOVR_EXCL_BR_LINE: no test gets in between publish() and this
        return false;         // GCOVR_EXCL_LINE: it sends what is left
    if (!turn || !m_callbacks.isEmpty() || m_sender.waiting() > cSentToHere)
        return false;
    m_connections.beginRound();
    return m_connections.now() >= m_sender.lastSending() + cGathering && !serve(cSentToHere);
}

void PublisherEngine::run() {
    std::unique_lock<std::mutex> turn(m_turn);
    while (!isFinished()) {
        m_connections.beginRound();
        try {
            runCommands();
            checkTimes();
            const bool isSending = serve(cBatchesAtATime);
            waitForEvents(turn, isSending || isFinished() || mayEnd());
        } catch (const std::bad_alloc&) {
            // It is tried again, for there may be memory then.
            System::schedYield();
        }
        m_connections.endRound();
    }
}

bool PublisherEngine::isFinished() const {
    return m_hasSaidGoodbye && !m_door.isDeciding() && !m_connections.isClosing();
}

/** @return whether everything has been sent that was published before stop(). */
bool PublisherEngine::mayEnd() const {
    return m_isStopping && !m_hasSaidGoodbye && m_sender.isDone() && !hasNews() && m_callbacks.isDelivered();
}

bool PublisherEngine::hasNews() const {
    if (m_hasCommands.load(std::memory_order_seq_cst))
        return true;
    const PublisherTopics::List& topics = m_topics.all();
    return std::any_of(topics.begin(), topics.end(), [](const PublisherTopic* topic) {
        return topic->history.endPlace() != topic->servedEnd;
    });
}

/** @return when there is something to do even if nothing happens. */
PublisherEngine::Clock::time_point PublisherEngine::nextTime() const {
    const Clock::time_point next = std::min({m_connections.due(), m_sender.due(), m_callbacks.due()});
    if (!m_isStopping)
        return std::min(next, m_door.due());
    if (!m_hasSaidGoodbye)
        return std::min(next, m_stopAt.end());
    return m_connections.isClosing() ? std::min(next, m_closeUntil) : next;
}

void PublisherEngine::waitForEvents(std::unique_lock<std::mutex>& turn, bool isBusy) {
    if (!isBusy && m_sender.hasSent()) {
        // Whoever publishes without a pause, on this processor, is let go on: what gathers is sent at once.
        System::schedYield();
        isBusy = hasNews();
    }
    if (!isBusy) {
        m_isAsleep.store(true, std::memory_order_seq_cst);
        isBusy = hasNews();
    }
    const Clock::time_point until = isBusy ? Clock::time_point() : nextTime();
    turn.unlock();
    const auto events = m_poll->wait(until);
    m_isAsleep.store(false, std::memory_order_seq_cst);
    turn.lock();
    m_connections.beginRound();
    for (const epoll_event& event : events)
        handle(event);
}

/** Does a step for one client. When there is no memory for it, the client is given up, and the others go on.
 */
template <typename Step>
void PublisherEngine::forOne(PublisherClient& client, Step&& step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
        if (client.state == State::live)
            leave(client, {Leaving::lost, ENOMEM});
        m_connections.close(client);
    }
}

void PublisherEngine::handle(const epoll_event& event) {
    if (event.data.ptr == &m_door)
        return m_door.acceptClients();
    auto& client = *static_cast<PublisherClient*>(event.data.ptr);
    forOne(client, [&] { hear(client, event.events); });
}

void PublisherEngine::hear(PublisherClient& client, std::uint32_t events) {
    if (client.state == State::line || client.state == State::request) {
        if (!m_door.hear(client))
            return;
        if (!m_options.onSubscribe)
            return admit(client);
        m_door.keep(client);
        ask(client.who);
    } else if (client.state == State::live) {
        if (const auto end = m_sender.hear(client, events))
            lose(client, *end);
    } else if (client.state == State::closing) {
        m_connections.hearClosing(client, events);
    }
}

void PublisherEngine::runCommands() {
    if (!m_hasCommands.load(std::memory_order_seq_cst))
        return;
    std::vector<Command> commands;
    bool wantsStop = false;
    bool isUndecided = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_hasCommands = false;
        commands.swap(m_commands);
        wantsStop = m_wantsStop;
        isUndecided = m_isUndecided;
    }
    for (const Command& command : commands)
        perform(command);
    if (wantsStop && !m_isStopping)
        beginStopping(isUndecided);
}

void PublisherEngine::perform(const Command& command) {
    if (command.what == Command::What::decide) {
        decide(command);
    } else if (command.what == Command::What::drop) {
        if (PublisherClient* client = m_book.find(command.nId))
            dismiss(*client, Wire::cDropped, command.sReason, {Leaving::dropped, 0});
    } else if (PublisherClient* client = m_callbacks.noteOutcome(command.nId)) {
        post(*client);
    }
}

/** The handler has decided. Whom it admits is a subscriber, even one who has left meanwhile. */
void PublisherEngine::decide(const Command& command) {
    PublisherClient* client = m_door.kept(command.nId);
    if (client == nullptr) // GCOVR_EXCL_BR_LINE: a client that is kept stays
        return;            // GCOVR_EXCL_LINE: as above
    const int error = m_door.letGo(*client);
    forOne(*client, [&] {
        if (!command.sReason.empty())
            return m_door.refuse(*client, command.sReason);
        admit(*client);
        if (error != 0 && client->state == State::live)
            lose(*client, {Leaving::lost, error});
    });
}

void PublisherEngine::beginStopping(bool isUndecided) {
    m_isStopping = true;
    m_connections.endLimit();
    m_door.close(isUndecided);
}

/** Nobody else would say it: without memory it is tried until there is some. */
void PublisherEngine::leaveCommand(Command command) noexcept {
    for (bool isLeft = false; !isLeft;) {
        try {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_commands.push_back(std::move(command));
            m_hasCommands = true;
            isLeft = true;
        } catch (const std::bad_alloc&) {
            System::schedYield();
        }
    }
    wakeUp();
}

void PublisherEngine::checkTimes() {
    m_connections.closeLate();
    checkSubscribers();
    if (m_isStopping)
        finishStopping();
    else
        m_door.checkTimes();
}

void PublisherEngine::checkSubscribers() {
    while (PublisherClient* client = m_sender.late())
        lose(*client, {Leaving::lost, ETIMEDOUT});
    while (PublisherClient* client = m_sender.silent())
        forOne(*client, [&] { m_sender.giveSign(*client); });
    while (PublisherClient* client = m_callbacks.late())
        dismiss(*client, Wire::cDropped, cNoSink, {Leaving::lost, ETIMEDOUT});
    m_callbacks.postAgain([this](PublisherClient& client) { post(client); });
}

void PublisherEngine::finishStopping() {
    if (m_hasSaidGoodbye) {
        if (m_connections.now() >= m_closeUntil)
            m_connections.closeAll();
        return;
    }
    if (!mayEnd() && !m_stopAt.isOver())
        return;
    while (PublisherClient* client = m_sender.any())
        dismiss(*client, Wire::cStopped, cServiceStops, {Leaving::stopped, 0});
    m_hasSaidGoodbye = true;
    m_closeUntil = std::min(m_stopAt.end(), m_connections.now() + cGoodbyeLimit);
}

void PublisherEngine::ask(const VornPublisher::Subscriber& asking) {
    m_handlers.post([this, asking] {
        Command decision{Command::What::decide, asking.nId, "refused"};
        bool wantsStop = false;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            wantsStop = m_wantsStop;
        }
        if (!wantsStop)
            callHandler(VornLogging::cError, cSubscribeThrown,
                        [&] { decision.sReason = m_options.onSubscribe(asking); });
        leaveCommand(std::move(decision));
    });
}

void PublisherEngine::admit(PublisherClient& client) {
    enrol(client, client.admit(m_nBeat));
    if (m_isStopping)
        return lose(client, {Leaving::stopped, 0});
    m_sender.add(client);
    if (client.isCalledBack())
        post(client);
}

/** From here on it is a subscriber; all that needs memory comes first. */
void PublisherEngine::enrol(PublisherClient& client, const PublisherClient::Sent& gap) {
    prepareFarewell(client);
    client.topic->subscribers.push_back(nullptr);
    client.topic->subscribers.pop_back();
    if (client.isCalledBack())
        m_callbacks.prepare(client);
    m_book.enter(client, gap);
    VORN_PROBE(subscription__begun, client.who.nId, client.who.sTopic.c_str(), client.who.sFrom.c_str(),
               client.who.position.nNumber);
    client.state = State::live;
    client.nIndex = client.topic->subscribers.size();
    client.topic->subscribers.push_back(&client);
    if (client.isCalledBack())
        m_callbacks.add(client);
}

void PublisherEngine::prepareFarewell(PublisherClient& client) {
    if (!m_options.onLeave)
        return;
    client.spFarewell = std::make_shared<PublisherClient::Farewell>();
    client.spFarewell->who = client.who;
    client.farewellCall.emplace_back([this, spFarewell = client.spFarewell] {
        const PublisherClient::Farewell& farewell = *spFarewell;
        callHandler(VornLogging::cError, cLeaveThrown,
                    [&] { m_options.onLeave(farewell.who, farewell.leaving, farewell.nCode); });
    });
}

/** Sends to those who have something to get, at most so many batches. @return whether there is more */
bool PublisherEngine::serve(std::size_t batches) {
    for (PublisherTopic* topic : m_topics.all()) {
        const std::uint64_t end = topic->history.endPlace();
        if (std::exchange(topic->servedEnd, end) == end)
            continue;
        // From the last one on, whose place is taken by none that has not had its turn if one leaves.
        for (std::size_t i = topic->subscribers.size(); i-- > 0;) {
            PublisherClient& client = *topic->subscribers[i];
            if (client.isCalledBack())
                post(client);
            else
                m_sender.wakeUp(client);
        }
    }
    PublisherClient* client = m_sender.next();
    for (std::size_t count = 0; count < batches && client != nullptr; ++count) {
        serveOne(*client);
        client = m_sender.next();
    }
    return client != nullptr;
}

void PublisherEngine::serveOne(PublisherClient& client) {
    forOne(client, [&] {
        if (const int error = m_sender.send(client); error != 0)
            lose(client, EventSender::endBy(error));
        else if (client.isCalledBack() && !m_sender.isBlocked(client))
            m_callbacks.post(client);
    });
}

void PublisherEngine::post(PublisherClient& client) {
    forOne(client, [&] { m_callbacks.post(client); });
}

/** Ends a subscription with a last word. */
void PublisherEngine::dismiss(PublisherClient& client, std::uint32_t ending, std::string_view reason,
                              const End& end) {
    forOne(client, [&] {
        client.say(lastFrame(ending, reason));
        leave(client, end);
        m_connections.closeLater(client);
    });
}

/** Ends a subscription, and its connection. */
void PublisherEngine::lose(PublisherClient& client, const End& end) {
    leave(client, end);
    m_connections.close(client);
}

/** Ends a subscription. The connection is closed by the caller, now or later. */
void PublisherEngine::leave(PublisherClient& client, const End& end) {
    VORN_PROBE(subscription__ended, client.who.nId, client.who.sTopic.c_str(), client.who.sFrom.c_str(),
               static_cast<int>(end.leaving), end.nCode);
    std::vector<PublisherClient*>& others = client.topic->subscribers;
    others.back()->nIndex = client.nIndex;
    others[client.nIndex] = others.back();
    others.pop_back();
    if (client.isCalledBack())
        m_callbacks.remove(client);
    m_book.remove(client);
    if (client.spFarewell == nullptr)
        return;
    PublisherClient::Farewell& farewell = *client.spFarewell;
    farewell.who.position = client.who.position;
    farewell.who.nBehind = client.topic->history.newest() - client.who.position.nNumber;
    farewell.leaving = end.leaving;
    farewell.nCode = end.nCode;
    m_handlers.post(client.farewellCall);
}

} // namespace VornNet
