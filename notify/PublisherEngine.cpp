// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PublisherEngine.h"

#include "DescriptorLimit.h"
#include "HandlerCall.h"
#include "Wire.h"

#include <Cancellation.h>
#include <Probe.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <new>
#include <utility>

#include <netinet/tcp.h>

namespace VornNet {

namespace {

using std::chrono::milliseconds;

constexpr const char* cNotAllowed = "not allowed";
constexpr const char* cTooMany = "too many subscribers";
constexpr const char* cNoSink = "the callback address does not answer";
constexpr const char* cSubscribeThrown = "VornPublisher::onSubscribe: the handler threw: ";
constexpr const char* cLeaveThrown = "VornPublisher::onLeave: the handler threw: ";

/** Batches that are sent between two looks at what the clients do. */
constexpr std::size_t cBatchesAtATime = 64;

/** Clients that are accepted at a time, so that those who have asked are heard in between. */
constexpr int cAcceptedAtATime = 16;

/** So long a client that has just connected is not cut for another one: it has had no time to say anything.
 */
constexpr milliseconds cGrace{3};

constexpr milliseconds cAcceptPause{100};
constexpr milliseconds cFilePause{500};
constexpr milliseconds cPostPause{100};
constexpr milliseconds cClosingLimit{1'000};

/** A sink that takes nothing for so long is not there any more. */
constexpr milliseconds cSinkLimit{60'000};

/** An event that is published so soon after the last sending is not sent by the one who publishes it. */
constexpr std::chrono::microseconds cGathering{5};

/** Most subscribers that one who publishes sends to. */
constexpr std::size_t cSentToHere = 4;

constexpr std::uint32_t cHearing = EPOLLIN | EPOLLRDHUP;

template <typename Number>
Number clamped(milliseconds span) {
    return static_cast<Number>(std::min<milliseconds::rep>(span.count(), std::numeric_limits<int>::max()));
}

/**
 * @return the error number that the program is told. A connection that stands ends with these two only when
 * its time is over: they are the kernel's guess why nothing was acknowledged.
 */
int codeOf(int error) {
    return error == EHOSTUNREACH || error == ENETUNREACH ? ETIMEDOUT : error;
}

/** @return why a subscriber whose connection has failed is no more. */
VornPublisher::Leaving leavingOf(int nCode) {
    const bool isItsOwn = nCode == 0 || nCode == ECONNRESET || nCode == EPIPE;
    return isItsOwn ? VornPublisher::Leaving::closed : VornPublisher::Leaving::lost;
}

/** So that a push_back() that follows needs no memory. */
template <typename Element>
void makeRoom(std::vector<Element>& elements) {
    if (elements.size() == elements.capacity())
        elements.reserve(std::max<std::size_t>(2 * elements.size(), 8));
}

VornString lastFrame(Wire::Ending ending, std::string_view reason) {
    reason = reason.substr(0, Wire::cLongestReason - Wire::cLastHead);
    VornString sFrame;
    Wire::appendInt(sFrame, Wire::cLast);
    Wire::appendInt(sFrame, static_cast<std::uint32_t>(Wire::cLastHead + reason.size()));
    Wire::appendInt(sFrame, ending);
    Wire::appendText(sFrame, reason);
    return sFrame;
}

VornString signFrame(std::uint64_t newest) {
    VornString sFrame;
    Wire::appendInt(sFrame, Wire::cSign);
    Wire::appendInt(sFrame, Wire::cSignRest);
    Wire::appendNumber(sFrame, newest);
    return sFrame;
}

} // namespace

PublisherEngine::PublisherEngine(const VornPublisher::Options& options, const SenderRules& rules,
                                 const PublisherTopics& topics, PublisherListener& listener,
                                 HandlerThread& handlers)
    : m_options(options), m_topics(topics), m_listener(listener), m_handlers(handlers), m_rules(rules),
      m_nSubscriberLimit(options.nSubscriberLimit), m_nBeat(clamped<std::uint32_t>(options.beat)) {
    if (m_nSubscriberLimit == 0)
        m_nSubscriberLimit = halfOfDescriptors(std::numeric_limits<std::size_t>::max());
}

void PublisherEngine::start() {
    if (m_options.bCallbackAddresses)
        m_poster.emplace(m_options.sName, [this](const VornDispatcher::Result& result) {
            leaveCommand({Command::What::note, result.nTicket, {}});
        });
    m_thread.start(m_options.sName, [this] { run(); });
}

void PublisherEngine::sendNews() {
    const CancellationOff off; // what was begun is finished, and nobody else wakes the thread
    if (!sendHere())
        wakeUp();
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
    if (!turn || !m_calledBack.empty() || m_idle.size() + m_blocked.size() > cSentToHere)
        return false;
    m_now = Clock::now();
    return m_now >= m_lastSending + cGathering && !serve(cSentToHere);
}

std::vector<VornPublisher::Subscriber> PublisherEngine::subscribers() const {
    std::vector<VornPublisher::Subscriber> result;
    const std::lock_guard<std::mutex> lock(m_mutex);
    result.reserve(m_subscribers.size());
    for (const auto& [nId, client] : m_subscribers) {
        result.push_back(client->who);
        result.back().nBehind = client->topic->history.newest() - client->who.position.nNumber;
    }
    return result;
}

VornPublisher::Statistics PublisherEngine::statistics() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    VornPublisher::Statistics result = m_statistics;
    result.nSubscribers = m_subscribers.size();
    for (const PublisherTopic* topic : m_topics.all())
        result.nPublished += topic->history.newest() - topic->nFirst;
    for (const auto& [nId, client] : m_subscribers)
        result.nBehind += client->who.position.nNumber != client->topic->history.newest() ? 1 : 0;
    return result;
}

bool PublisherEngine::drop(std::uint64_t nId, const VornString& sReason) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_subscribers.find(nId);
        if (found == m_subscribers.end() || found->second->isDropped)
            return false;
        m_commands.push_back({Command::What::drop, nId, sReason});
        m_hasCommands = true;
        found->second->isDropped = true;
    }
    wakeUp();
    return true;
}

bool PublisherEngine::flush(milliseconds timeLimit) {
    const Deadline deadline = Deadline::ofWait(timeLimit);
    std::unique_lock<std::mutex> lock(m_mutex);
    std::vector<std::pair<std::uint64_t, std::uint64_t>>
        wanted; // ids, and the events that they are to be sent
    for (const auto& [nId, client] : m_subscribers)
        wanted.emplace_back(nId, client->topic->history.newest());
    const auto isDone = [&] {
        wanted.erase(std::remove_if(wanted.begin(), wanted.end(),
                                    [this](const auto& one) {
                                        const auto found = m_subscribers.find(one.first);
                                        return found == m_subscribers.end() ||
                                               found->second->who.position.nNumber >= one.second;
                                    }),
                     wanted.end());
        return wanted.empty();
    };
    if (deadline.end() != Deadline::none().end())
        return m_changed.wait_until(lock, deadline.end(), isDone);
    m_changed.wait(lock, isDone);
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
    m_poster.reset();
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

void PublisherEngine::run() {
    std::unique_lock<std::mutex> turn(m_turn);
    while (!isFinished()) {
        m_now = Clock::now();
        try {
            runCommands();
            checkTimes();
            const bool isSending = serve(cBatchesAtATime);
            waitForEvents(turn, isSending || isFinished() || mayEnd());
        } catch (const std::bad_alloc&) {
            // It is tried again, for there may be memory then.
            System::schedYield();
        }
        m_gone.clear();
    }
}

bool PublisherEngine::isFinished() const {
    return m_hasSaidGoodbye && m_checking.empty() && m_closing.empty();
}

/** @return whether everything has been sent that was published before stop(). */
bool PublisherEngine::mayEnd() const {
    return m_isStopping && !m_hasSaidGoodbye && m_sending.empty() && m_blocked.empty() && !hasNews() &&
           isDelivered();
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
    Clock::time_point next = std::min(m_postAgain, m_checkSinks);
    const auto consider = [&next](const List& list, milliseconds limit) {
        if (!list.empty())
            next = std::min(next, Deadline(limit, list.front().since).end());
    };
    consider(m_asking, m_options.requestLimit);
    consider(m_closing, cClosingLimit);
    consider(m_idle, m_options.beat);
    if (!m_listener.isPipe())
        consider(m_blocked, 3 * milliseconds(m_nBeat));
    if (m_isStopping)
        return m_hasSaidGoodbye && m_closing.empty()
                   ? next
                   : std::min(next, m_hasSaidGoodbye ? m_closeUntil : m_stopAt.end());
    if (!m_isAccepting)
        next = std::min(next, m_acceptAgain);
    return m_listener.isPipe() ? std::min(next, m_checkFile) : next;
}

void PublisherEngine::waitForEvents(std::unique_lock<std::mutex>& turn, bool isBusy) {
    if (!isBusy && std::exchange(m_hasSent, false)) {
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
    m_now = Clock::now();
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
            leave(client, Leaving::lost, ENOMEM);
        close(client);
    }
}

void PublisherEngine::handle(const epoll_event& event) {
    if (event.data.ptr == &m_listener)
        return acceptClients();
    auto& client = *static_cast<PublisherClient*>(event.data.ptr);
    forOne(client, [&] {
        if (client.state == State::line || client.state == State::request)
            hear(client);
        else if (client.state == State::live)
            hearSubscriber(client, event.events);
        else if (client.state == State::closing)
            hearClosing(client, event.events);
    });
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
    for (const Command& command : commands) {
        if (command.what == Command::What::decide)
            decide(command);
        else if (command.what == Command::What::drop)
            dropNow(command);
        else
            noteOutcome(command);
    }
    if (wantsStop && !m_isStopping)
        beginStopping(isUndecided);
}

void PublisherEngine::beginStopping(bool isUndecided) {
    m_isStopping = true;
    if (std::exchange(m_isAccepting, false))
        m_poll->remove(m_listener.number());
    m_listener.close();
    while (!m_asking.empty())
        close(m_asking.front());
    while (isUndecided && !m_checking.empty())
        close(m_checking.front());
}

/** The handler has decided. Whom it admits is a subscriber, even one who has left meanwhile. */
void PublisherEngine::decide(const Command& command) {
    const auto found = std::find_if(m_checking.begin(), m_checking.end(), [&](const PublisherClient& client) {
        return client.who.nId == command.nId;
    });
    if (found == m_checking.end()) // GCOVR_EXCL_BR_LINE: a client that is being checked stays
        return;                    // GCOVR_EXCL_LINE: as above
    PublisherClient& client = *found;
    const int error = m_poll->add(client.socket.number(), cHearing, &client);
    client.state = State::request;
    client.nAwaited = cHearing;
    m_acceptAgain = m_now;
    forOne(client, [&] {
        if (!command.sReason.empty())
            return refuseRequest(client, command.sReason);
        admit(client);
        if (error != 0 && client.state == State::live) {
            leave(client, Leaving::lost, error);
            close(client);
        }
    });
}

void PublisherEngine::dropNow(const Command& command) {
    PublisherClient* client = find(command.nId);
    if (client == nullptr)
        return;
    forOne(*client, [&] {
        client->say(lastFrame(Wire::cDropped, command.sReason));
        leave(*client, Leaving::dropped, 0);
        closeLater(*client);
    });
}

/** An event at a callback address was taken, or cancelled after the last one who had named it had left. */
void PublisherEngine::noteOutcome(const Command& command) {
    const auto found = m_posted.find(command.nId);
    if (found == m_posted.end())
        return;
    found->second.spSink->hasTakenAt = m_now;
    PublisherClient* const subscriber = found->second.client;
    m_posted.erase(found);
    if (subscriber == nullptr)
        return;
    PublisherClient& client = *subscriber;
    PublisherClient::Sent sent;
    sent.nEvents = 1;
    sent.nBytes = client.posted.front().nBytes;
    client.posted.erase(client.posted.begin());
    client.noteSent();
    count(client, sent);
    postEvents(client);
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

/** @return the subscriber of that id, or null. */
PublisherClient* PublisherEngine::find(std::uint64_t nId) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_subscribers.find(nId);
    return found != m_subscribers.end() ? found->second : nullptr;
}

void PublisherEngine::checkTimes() {
    cutLate();
    giveSigns();
    checkSinks();
    postAgain();
    if (m_isStopping)
        return finishStopping();
    checkFile();
    // Who leaves without having subscribed gives a place back before the time.
    if (m_isAccepting || (m_now < m_acceptAgain && !(m_isFull && hasPlace())))
        return;
    if (m_checking.size() < m_options.nRequestLimit)
        m_isAccepting = m_poll->add(m_listener.number(), EPOLLIN, &m_listener) == 0;
    if (!m_isAccepting)
        m_acceptAgain = m_now + cAcceptPause;
}

void PublisherEngine::checkFile() {
    if (!m_listener.isPipe() || m_now < m_checkFile)
        return;
    m_checkFile = m_now + cFilePause;
    std::optional<PipeListener> pipe = m_listener.remake();
    if (!pipe)
        return;
    // Those who have found the old file still wait at the old socket.
    acceptClients();
    if (std::exchange(m_isAccepting, false))
        m_poll->remove(m_listener.number());
    m_listener.replace(std::move(*pipe));
}

/** Ends the subscriptions of those whose callback address does not answer. */
void PublisherEngine::checkSinks() {
    if (m_now < m_checkSinks)
        return;
    m_checkSinks = Clock::time_point::max();
    // One that leaves makes those after it take other places, and they have been looked at.
    for (std::size_t i = m_calledBack.size(); i-- > 0;) {
        PublisherClient& client = *m_calledBack[i];
        if (client.posted.empty())
            continue;
        // It takes the events of all who named it in one order.
        const Clock::time_point end = std::max(client.postsSince, client.spSink->hasTakenAt) + cSinkLimit;
        if (m_now < end) {
            m_checkSinks = std::min(m_checkSinks, end);
            continue;
        }
        forOne(client, [&] {
            client.say(lastFrame(Wire::cDropped, cNoSink));
            leave(client, Leaving::lost, ETIMEDOUT);
            closeLater(client);
        });
    }
}

/** Cuts whoever has had time enough. */
void PublisherEngine::cutLate() {
    const auto isLate = [this](const List& list, milliseconds limit) {
        return !list.empty() && m_now >= Deadline(limit, list.front().since).end();
    };
    while (isLate(m_asking, m_options.requestLimit))
        cutOldest();
    while (isLate(m_closing, cClosingLimit))
        close(m_closing.front());
    // Over TCP a client that takes nothing may be none any more; over a pipe the kernel would tell.
    while (!m_listener.isPipe() && isLate(m_blocked, 3 * milliseconds(m_nBeat))) {
        PublisherClient& client = m_blocked.front();
        leave(client, Leaving::lost, ETIMEDOUT);
        close(client);
    }
}

void PublisherEngine::giveSigns() {
    while (!m_idle.empty() && m_now >= Deadline(m_options.beat, m_idle.front().since).end()) {
        PublisherClient& client = m_idle.front();
        forOne(client, [&] {
            client.say(signFrame(client.topic->history.newest()));
            put(client, m_sending);
        });
    }
}

void PublisherEngine::finishStopping() {
    if (m_hasSaidGoodbye) {
        while (m_now >= m_closeUntil && !m_closing.empty())
            close(m_closing.front());
        return;
    }
    if (!mayEnd() && !m_stopAt.isOver())
        return;
    sayGoodbye();
    m_hasSaidGoodbye = true;
    m_closeUntil = std::min(m_stopAt.end(), m_now + cClosingLimit);
}

void PublisherEngine::sayGoodbye() {
    for (List* list : {&m_sending, &m_idle, &m_blocked}) {
        while (!list->empty()) {
            PublisherClient& client = list->front();
            forOne(client, [&] {
                client.say(lastFrame(Wire::cStopped, "the service stops"));
                leave(client, Leaving::stopped, 0);
                closeLater(client);
            });
        }
    }
}

/** @return whether one more client may ask without another one being cut. */
bool PublisherEngine::hasPlace() const {
    return m_asking.size() + m_checking.size() < m_options.nRequestLimit;
}

void PublisherEngine::acceptClients() {
    for (int count = 0; count < cAcceptedAtATime && m_isAccepting; ++count) {
        m_isFull = !hasPlace();
        // The client waits in the kernel's queue until the handler has decided, or the grace is over.
        if (m_isFull && m_asking.empty())
            return pauseAccepting(m_now + cAcceptPause);
        if (m_isFull && m_now < m_asking.front().since + cGrace)
            return pauseAccepting(m_asking.front().since + cGrace);
        sockaddr_storage storage{};
        socklen_t length = sizeof storage;
        OwnedDescriptor socket(System::accept4(m_listener.number(), reinterpret_cast<sockaddr*>(&storage),
                                               &length, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket.isOpen()) {
            const int error = errno;
            // Without descriptors the listener stays readable; to look all the time would cost a processor.
            if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM)
                pauseAccepting(m_now + cAcceptPause);
            if (error != ECONNABORTED && error != EINTR)
                return;
            continue;
        }
        if (m_isFull)
            cutOldest();
        add(std::move(socket), reinterpret_cast<const sockaddr_in&>(storage));
    }
}

void PublisherEngine::pauseAccepting(Clock::time_point until) {
    m_poll->remove(m_listener.number());
    m_isAccepting = false;
    m_acceptAgain = until;
}

/** Cuts the client that has been asking, or silent, for the longest time. */
void PublisherEngine::cutOldest() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_statistics.nTimedOut;
    }
    close(m_asking.front());
}

void PublisherEngine::add(OwnedDescriptor socket, const sockaddr_in& peer) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_statistics.nConnections;
    }
    if (!m_listener.isPipe()) {
        const int on = 1;
        const auto limit = static_cast<unsigned int>(
            std::min<std::uint64_t>(std::uint64_t{3} * m_nBeat, std::numeric_limits<int>::max()));
        System::setsockopt(socket.number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        System::setsockopt(socket.number(), IPPROTO_TCP, TCP_USER_TIMEOUT, &limit, sizeof limit);
    }
    try {
        m_asking.emplace_back(std::move(socket), m_listener.isPipe() ? nullptr : &peer);
    } catch (const std::bad_alloc&) {
        return; // it is closed, and may come back
    }
    PublisherClient& client = m_asking.back();
    client.list = &m_asking;
    client.self = std::prev(m_asking.end());
    client.since = m_now;
    client.nAwaited = cHearing;
    if (m_poll->add(client.socket.number(), cHearing, &client) != 0)
        close(client);
}

void PublisherEngine::hear(PublisherClient& client) {
    // Whoever leaves before it has subscribed needs no answer.
    if (client.receive() != 0)
        return close(client);
    if (client.state == State::request && client.hasOutput())
        sayKnown(client);
    if (client.state == State::line)
        hearLine(client);
    if (client.state == State::request)
        hearRequest(client);
}

void PublisherEngine::hearLine(PublisherClient& client) {
    const auto line = client.takeLine();
    client.topic = line ? m_topics.find(*line) : nullptr;
    if (client.topic != nullptr) {
        client.state = State::request;
        client.say({&Wire::cKnown, 1});
        sayKnown(client);
    } else if (line || client.isLineTooLong()) {
        refuse(client, {&Wire::cUnknown, 1});
    }
}

/** A socket of which nothing has been sent yet takes no byte when the kernel is short of memory. */
void PublisherEngine::sayKnown(PublisherClient& client) {
    const PublisherClient::Sent sent = client.sendLast();
    if (sent.nError != 0)
        return close(client);
    await(client, client.hasOutput() ? cHearing | EPOLLOUT : cHearing);
}

void PublisherEngine::hearRequest(PublisherClient& client) {
    if (!client.readRequest(m_options.bCallbackAddresses))
        return;
    VornString sReason = client.request->reason();
    if (sReason.empty())
        sReason = objectionTo(client);
    if (!sReason.empty())
        refuseRequest(client, sReason);
    else
        check(client);
}

/** @return why the publisher itself does not want it, or nothing. */
VornString PublisherEngine::objectionTo(const PublisherClient& client) const {
    const bool isAllowed =
        m_listener.isPipe() ? m_rules.admitsPeer(client.socket.number()) : m_rules.admits(client.address);
    if (!isAllowed)
        return cNotAllowed;
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_subscribers.size() + m_checking.size() < m_nSubscriberLimit ? "" : cTooMany;
}

void PublisherEngine::check(PublisherClient& client) {
    VornPublisher::Subscriber& who = client.who;
    who.nId = ++m_nLastId;
    who.sTopic = client.topic->sName;
    who.sWords = client.request->words();
    who.sCallback = client.request->callback();
    who.hCallback = client.request->handle();
    if (client.isCalledBack())
        client.spSink =
            std::make_shared<PublisherClient::Sink>(PublisherClient::Sink{client.request->callbackKey(), {}});
    who.position = client.request->position();
    if (!m_options.onSubscribe)
        return admit(client);
    // Nothing is to be heard until it is decided; the end of the connection would be told without a pause.
    m_poll->remove(client.socket.number());
    client.state = State::checking;
    put(client, m_checking);
    ask(who);
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

void PublisherEngine::refuse(PublisherClient& client, std::string_view answer) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_statistics.nRefused;
    }
    client.say(answer);
    closeLater(client);
}

void PublisherEngine::refuseRequest(PublisherClient& client, const VornString& sReason) {
    VornString sAnswer;
    Wire::appendInt(sAnswer, Wire::cRefused);
    Wire::appendText(sAnswer, std::string_view(sReason).substr(0, Wire::cLongestReason));
    refuse(client, sAnswer);
}

void PublisherEngine::admit(PublisherClient& client) {
    enrol(client, client.admit(m_nBeat));
    if (m_isStopping) {
        leave(client, Leaving::stopped, 0);
        return close(client);
    }
    put(client, m_sending);
    if (client.isCalledBack())
        postEvents(client);
}

/** From here on it is a subscriber; all that needs memory comes first. */
void PublisherEngine::enrol(PublisherClient& client, const PublisherClient::Sent& gap) {
    prepareFarewell(client);
    makeRoom(client.topic->subscribers);
    makeRoom(m_calledBack);
    for (const PublisherClient* other : m_calledBack) {
        if (client.isCalledBack() && other->spSink->sKey == client.spSink->sKey)
            client.spSink = other->spSink;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        client.who.position = {client.topic->history.id(), client.place.number};
        m_subscribers.emplace(client.who.nId, &client);
        ++m_statistics.nSubscribed;
        m_statistics.nGaps += gap.nGaps;
        m_statistics.nMissed += gap.nMissed;
    }
    VORN_PROBE(subscription__begun, client.who.nId, client.who.sTopic.c_str(), client.who.sFrom.c_str(),
               client.who.position.nNumber);
    client.state = State::live;
    client.nIndex = client.topic->subscribers.size();
    client.topic->subscribers.push_back(&client);
    if (client.isCalledBack())
        m_calledBack.push_back(&client);
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
                postEvents(client);
            else if (client.list == &m_idle)
                put(client, m_sending);
        }
    }
    for (std::size_t count = 0; count < batches && !m_sending.empty(); ++count)
        serveOne(m_sending.front());
    return !m_sending.empty();
}

void PublisherEngine::postEvents(PublisherClient& client) {
    forOne(client, [&] { postSome(client); });
}

/** Gives the dispatcher the next events for a callback address, a few at a time. */
void PublisherEngine::postSome(PublisherClient& client) {
    constexpr std::size_t cMostPosted = 32;
    // Whoever does not read its gaps gets no more of them, and no more events.
    while (client.posted.size() < cMostPosted && !client.hasMuchOutput()) {
        PublisherClient::Sent sent;
        const auto event = client.nextEvent(sent);
        const bool isOver = !event || !postOne(client, *event, sent);
        if (sent.nGaps != 0) {
            client.noteSent();
            count(client, sent);
            if (client.list == &m_idle)
                put(client, m_sending);
        }
        if (isOver)
            return;
    }
}

/** @return false when there is no room for it now */
bool PublisherEngine::postOne(PublisherClient& client, const PublisherClient::Event& event,
                              PublisherClient::Sent& sent) {
    const std::uint64_t ticket =
        m_poster->post(client.who.sCallback, client.who.hCallback, event.nNumber, event.sContent);
    if (ticket == EventPoster::cNoRoom) {
        client.goBackTo(event.before);
        m_postAgain = std::min(m_postAgain, m_now + cPostPause);
        return false;
    }
    if (ticket == EventPoster::cNeverFits) {
        client.skip(event, sent);
        return true;
    }
    if (client.posted.empty()) {
        client.postsSince = m_now;
        m_checkSinks = std::min(m_checkSinks, m_now + cSinkLimit);
    }
    client.posted.push_back({ticket, event.nNumber, sizeof event.nNumber + event.sContent.size()});
    m_posted.emplace(ticket, OnItsWay{&client, client.spSink});
    return true;
}

void PublisherEngine::postAgain() {
    if (m_now < m_postAgain)
        return;
    m_postAgain = Clock::time_point::max();
    // One that leaves makes the next one take its place, which then waits for its next event.
    for (std::size_t i = m_calledBack.size(); i-- > 0;)
        postEvents(*m_calledBack[i]);
}

/** What was posted for a client tells from now on only that its sink takes something. */
void PublisherEngine::forgetPosted(PublisherClient& client) {
    for (const PublisherClient::Posted& posted : client.posted) {
        const auto found = m_posted.find(posted.nTicket);
        if (found != m_posted.end()) // else there was no memory for it
            found->second.client = nullptr;
    }
    client.posted.clear();
}

/** @return whether the callback addresses have all events. */
bool PublisherEngine::isDelivered() const {
    return m_postAgain == Clock::time_point::max() &&
           std::all_of(m_calledBack.begin(), m_calledBack.end(),
                       [](const PublisherClient* client) { return client->posted.empty(); });
}

void PublisherEngine::serveOne(PublisherClient& client) {
    using Outcome = PublisherClient::Sent::Outcome;
    forOne(client, [&] {
        const PublisherClient::Sent sent = client.send();
        count(client, sent);
        m_hasSent = true;
        m_lastSending = m_now;
        if (sent.nError != 0) {
            leave(client, leavingOf(sent.nError), codeOf(sent.nError));
            close(client);
        } else if (sent.outcome == Outcome::blocked) {
            put(client, m_blocked);
            await(client, cHearing | EPOLLOUT);
        } else {
            put(client, sent.outcome == Outcome::more ? m_sending : m_idle);
            if (client.isCalledBack())
                postSome(client);
        }
    });
}

void PublisherEngine::count(PublisherClient& client, const PublisherClient::Sent& sent) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    client.who.position.nNumber = client.nSent;
    VORN_PROBE(event__sent, client.who.nId, client.who.sTopic.c_str(), client.nSent, sent.nEvents);
    m_statistics.nSent += sent.nEvents;
    m_statistics.nSentBytes += sent.nBytes;
    m_statistics.nGaps += sent.nGaps;
    m_statistics.nMissed += sent.nMissed;
    m_changed.notify_all();
}

void PublisherEngine::hearSubscriber(PublisherClient& client, std::uint32_t events) {
    if ((events & ~std::uint32_t{EPOLLOUT}) != 0) {
        char byte = '\0';
        const ssize_t count = System::recv(client.socket.number(), &byte, 1, MSG_DONTWAIT);
        const int error = count == -1 ? errno : 0;
        if (error != EAGAIN && error != EINTR) {
            leave(client, count > 0 ? Leaving::violated : leavingOf(error), codeOf(error));
            return close(client);
        }
    }
    if ((events & EPOLLOUT) != 0) {
        await(client, cHearing);
        put(client, m_sending);
    }
}

void PublisherEngine::hearClosing(PublisherClient& client, std::uint32_t events) {
    if ((events & EPOLLOUT) != 0) {
        const PublisherClient::Sent sent = client.sendLast();
        if (sent.nError != 0)
            return close(client);
        if (!client.hasOutput()) {
            client.endSending();
            await(client, cHearing);
        }
    }
    if ((events & ~std::uint32_t{EPOLLOUT}) != 0 && client.discard() != 0)
        close(client);
}

/** Ends a subscription. The connection is closed by the caller, now or later. */
void PublisherEngine::leave(PublisherClient& client, Leaving leaving, int nCode) {
    VORN_PROBE(subscription__ended, client.who.nId, client.who.sTopic.c_str(), client.who.sFrom.c_str(),
               static_cast<int>(leaving), nCode);
    std::vector<PublisherClient*>& others = client.topic->subscribers;
    others.back()->nIndex = client.nIndex;
    others[client.nIndex] = others.back();
    others.pop_back();
    if (client.isCalledBack())
        leaveCallback(client);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_subscribers.erase(client.who.nId);
        ++m_statistics.nLeft;
        m_changed.notify_all();
    }
    if (client.spFarewell == nullptr)
        return;
    PublisherClient::Farewell& farewell = *client.spFarewell;
    farewell.who.position = client.who.position;
    farewell.who.nBehind = client.topic->history.newest() - client.who.position.nNumber;
    farewell.leaving = leaving;
    farewell.nCode = nCode;
    m_handlers.post(client.farewellCall);
}

/** Takes back what waits for the callback address of one who leaves, unless others have the same. */
void PublisherEngine::leaveCallback(PublisherClient& client) {
    forgetPosted(client);
    m_calledBack.erase(std::find(m_calledBack.begin(), m_calledBack.end(), &client));
    if (std::none_of(m_calledBack.begin(), m_calledBack.end(),
                     [&](const PublisherClient* other) { return other->spSink == client.spSink; })) {
        try {
            m_poster->cancel(client.who.sCallback);
        } catch (const std::bad_alloc&) {
            // Then the sink is sent what was posted already, and no more.
        }
    }
}

/** Sends the last word, and gives the client a moment to read it: closing at once might take it away. */
void PublisherEngine::closeLater(PublisherClient& client) {
    client.state = State::closing;
    const PublisherClient::Sent sent = client.sendLast();
    if (sent.nError != 0)
        return close(client);
    if (!client.hasOutput())
        client.endSending();
    await(client, client.hasOutput() ? cHearing | EPOLLOUT : cHearing);
    put(client, m_closing);
    // Strangers have no more places here than they have for asking.
    if (m_closing.size() > m_options.nRequestLimit && !m_isStopping)
        close(m_closing.front());
}

void PublisherEngine::close(PublisherClient& client) {
    if (client.state != State::checking)
        m_poll->remove(client.socket.number());
    client.state = State::gone;
    client.socket.reset();
    put(client, m_gone);
}

void PublisherEngine::put(PublisherClient& client, List& list) {
    list.splice(list.end(), *client.list, client.self);
    client.list = &list;
    client.since = m_now;
}

void PublisherEngine::await(PublisherClient& client, std::uint32_t events) {
    if (std::exchange(client.nAwaited, events) != events)
        m_poll->change(client.socket.number(), events, &client);
}

} // namespace VornNet
