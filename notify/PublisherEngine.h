// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PUBLISHERENGINE_H
#define VORNNOTIFY_PUBLISHERENGINE_H

#include "CallbackSubscribers.h"
#include "Deadline.h"
#include "EventPoll.h"
#include "EventSender.h"
#include "HandlerThread.h"
#include "PublisherConnections.h"
#include "PublisherDoor.h"
#include "QuietThread.h"
#include "SubscriberBook.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

namespace VornNet {

/**
 * The sending thread of a publisher, and what it drives: a client comes in at the door, is a subscriber from
 * its admission on, and is sent what lies after its place in the history, over its connection or to its
 * callback address, until it leaves.
 *
 * Other threads leave commands and wake the thread. All connections are its own but while it sleeps: whoever
 * publishes may then send, instead of waking it, and waits for nobody to have the turn.
 */
class PublisherEngine {
public:
    /** @throws std::system_error */
    PublisherEngine(const VornPublisher::Options& options, const SenderRules& rules,
                    const PublisherTopics& topics, PublisherListener& listener, HandlerThread& handlers);

    /** @throws std::system_error */
    void start();

    /** Has sent what there is to send, by the thread, or here. */
    void sendNews();

    std::vector<VornPublisher::Subscriber> subscribers() const { return m_book.subscribers(); }

    VornPublisher::Statistics statistics() const { return m_book.statistics(); }

    bool drop(std::uint64_t nId, const VornString& sReason);

    bool flush(std::chrono::milliseconds timeLimit) { return m_book.flush(timeLimit); }

    /** Sends what is left until the time is up, says goodbye, and waits for the thread's end. */
    void stop(std::chrono::milliseconds timeLimit);

    /** As stop(), when nobody decides any more about those who ask. */
    void stopUndecided(std::chrono::milliseconds timeLimit);

private:
    using Clock = EventPoll::Clock;
    using State = PublisherClient::State;
    using End = EventSender::End;

    /** What another thread wants done. */
    struct Command {
        enum class What {
            decide, ///< the handler has answered
            drop,   ///< by drop()
            note    ///< an event that was posted to a callback address has its outcome
        };
        What what = What::drop;
        std::uint64_t nId = 0; ///< of the client, or the ticket
        VornString sReason;    ///< why not; empty: admitted
    };

    void wakeUp();
    bool sendHere();

    void run();
    bool isFinished() const;
    bool mayEnd() const;
    bool hasNews() const;
    Clock::time_point nextTime() const;
    void waitForEvents(std::unique_lock<std::mutex>& turn, bool isBusy);
    template <typename Step>
    void forOne(PublisherClient& client, Step&& step);
    void handle(const epoll_event& event);
    void hear(PublisherClient& client, std::uint32_t events);

    void runCommands();
    void perform(const Command& command);
    void decide(const Command& command);
    void beginStopping(bool isUndecided);
    void leaveCommand(Command command) noexcept;

    void checkTimes();
    void checkSubscribers();
    void finishStopping();

    void ask(const VornPublisher::Subscriber& asking);
    void admit(PublisherClient& client);
    void enrol(PublisherClient& client, const PublisherClient::Sent& gap);
    void prepareFarewell(PublisherClient& client);

    bool serve(std::size_t batches);
    void serveOne(PublisherClient& client);
    void post(PublisherClient& client);

    void dismiss(PublisherClient& client, std::uint32_t ending, std::string_view reason, const End& end);
    void lose(PublisherClient& client, const End& end);
    void leave(PublisherClient& client, const End& end);

    const VornPublisher::Options& m_options;
    const PublisherTopics& m_topics;
    HandlerThread& m_handlers;
    const std::uint32_t m_nBeat;

    std::mutex m_mutex; // guards the next four
    std::vector<Command> m_commands;
    bool m_wantsStop = false;
    bool m_isUndecided = false;           // those whom the handler is asked about are not waited for
    Deadline m_stopAt = Deadline::none(); // for the thread too, from when m_wantsStop is set

    std::atomic<bool> m_isAsleep{false};
    std::atomic<bool> m_hasCommands{false};
    std::mutex m_wakeMutex; // held by whoever wakes the thread, or takes the poll away
    std::optional<EventPoll> m_poll{std::in_place};
    SubscriberBook m_book; // has a lock of its own

    std::mutex m_turn; // taken before all other locks; guards all below but the thread
    PublisherConnections m_connections;
    PublisherDoor m_door;
    EventSender m_sender;
    CallbackSubscribers m_callbacks;
    bool m_isStopping = false;
    bool m_hasSaidGoodbye = false;
    Clock::time_point m_closeUntil{};
    QuietThread m_thread;
};

} // namespace VornNet

#endif
