// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PUBLISHERENGINE_H
#define VORNNOTIFY_PUBLISHERENGINE_H

#include "Deadline.h"
#include "EventPoll.h"
#include "EventPoster.h"
#include "HandlerThread.h"
#include "PublisherClient.h"
#include "PublisherListener.h"
#include "QuietThread.h"
#include "SenderRules.h"
#include "VornPublisher.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace VornNet {

/**
 * The sending thread of a publisher: accepts clients, reads their requests, and sends each what lies after
 * its place in the history. Other threads leave commands and wake it. All connections are its own but while
 * it sleeps: whoever publishes may then send, instead of waking it, and waits for nobody to have the turn.
 *
 * A client is in one list at a time, and each list is in the order in which its clients are due. Admitted
 * clients are also found by their ids, for whoever asks; that, and what is told of them, is under a lock.
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

    std::vector<VornPublisher::Subscriber> subscribers() const;
    VornPublisher::Statistics statistics() const;
    bool drop(std::uint64_t nId, const VornString& sReason);
    bool flush(std::chrono::milliseconds timeLimit);

    /** Sends what is left until the time is up, says goodbye, and waits for the thread's end. */
    void stop(std::chrono::milliseconds timeLimit);

    /** As stop(), when nobody decides any more about those who ask. */
    void stopUndecided(std::chrono::milliseconds timeLimit);

private:
    using Clock = std::chrono::steady_clock;
    using List = PublisherClient::List;
    using State = PublisherClient::State;
    using Leaving = VornPublisher::Leaving;

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

    /** An event that a callback address has not taken yet. */
    struct OnItsWay {
        PublisherClient* client; ///< null: it has left
        std::shared_ptr<PublisherClient::Sink> spSink;
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

    void runCommands();
    void beginStopping(bool isUndecided);
    void decide(const Command& command);
    void dropNow(const Command& command);
    void noteOutcome(const Command& command);
    void leaveCommand(Command command) noexcept;
    PublisherClient* find(std::uint64_t nId) const;

    void checkTimes();
    void checkFile();
    void checkSinks();
    void cutLate();
    void giveSigns();
    void finishStopping();
    void sayGoodbye();

    bool hasPlace() const;
    void acceptClients();
    void pauseAccepting(Clock::time_point until);
    void cutOldest();
    void add(OwnedDescriptor socket, const sockaddr_in& peer);
    void hear(PublisherClient& client);
    void hearLine(PublisherClient& client);
    void sayKnown(PublisherClient& client);
    void hearRequest(PublisherClient& client);
    VornString objectionTo(const PublisherClient& client) const;
    void check(PublisherClient& client);
    void ask(const VornPublisher::Subscriber& asking);
    void refuse(PublisherClient& client, std::string_view answer);
    void refuseRequest(PublisherClient& client, const VornString& sReason);
    void admit(PublisherClient& client);
    void enrol(PublisherClient& client, const PublisherClient::Sent& gap);
    void prepareFarewell(PublisherClient& client);

    bool serve(std::size_t batches);
    void postEvents(PublisherClient& client);
    void postSome(PublisherClient& client);
    bool postOne(PublisherClient& client, const PublisherClient::Event& event, PublisherClient::Sent& sent);
    void postAgain();
    void forgetPosted(PublisherClient& client);
    bool isDelivered() const;
    void serveOne(PublisherClient& client);
    void count(PublisherClient& client, const PublisherClient::Sent& sent);
    void hearSubscriber(PublisherClient& client, std::uint32_t events);
    void hearClosing(PublisherClient& client, std::uint32_t events);
    void leave(PublisherClient& client, Leaving leaving, int nCode);
    void leaveCallback(PublisherClient& client);
    void closeLater(PublisherClient& client);
    void close(PublisherClient& client);

    void put(PublisherClient& client, List& list);
    void await(PublisherClient& client, std::uint32_t events);

    const VornPublisher::Options& m_options;
    const PublisherTopics& m_topics;
    PublisherListener& m_listener;
    HandlerThread& m_handlers;
    const SenderRules& m_rules;
    std::size_t m_nSubscriberLimit;
    std::uint32_t m_nBeat;

    // For whoever has m_turn: the thread, but while it sleeps.
    List m_asking;   // their request is awaited; in the order of their acceptance
    List m_checking; // the handler is asked
    List m_sending;  // there is something to send, and the socket takes it; in turn
    List m_idle;     // everything is sent; in the order of the last sending
    List m_blocked;  // the socket takes no more; in the order of the last sending
    List m_closing;  // in the order in which their closing began
    List m_gone;     // closed, and kept while events of this round may name them
    Clock::time_point m_now{};
    Clock::time_point m_acceptAgain{}; // when the listener is looked at again, if it is not now
    bool m_isAccepting = false;
    bool m_isFull = false; // it is not looked at because all places are taken
    Clock::time_point m_checkFile{};
    std::vector<PublisherClient*> m_calledBack;                // whose events go to a callback address
    std::map<std::uint64_t, OnItsWay> m_posted;                // by ticket
    Clock::time_point m_postAgain = Clock::time_point::max();  // there was no room for an event
    Clock::time_point m_checkSinks = Clock::time_point::max(); // the first one may have had its time by then
    bool m_hasSent = false;
    Clock::time_point m_lastSending{};
    bool m_isStopping = false;
    bool m_hasSaidGoodbye = false;
    Clock::time_point m_closeUntil{};

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::uint64_t, PublisherClient*> m_subscribers; // guarded by m_mutex, as all below
    VornPublisher::Statistics m_statistics;
    std::vector<Command> m_commands;
    std::uint64_t m_nLastId = 0;
    bool m_wantsStop = false;
    bool m_isUndecided = false; // those whom the handler is asked about are not waited for
    Deadline m_stopAt = Deadline::none();

    std::mutex m_turn; // taken before m_mutex
    std::atomic<bool> m_isAsleep{false};
    std::atomic<bool> m_hasCommands{false};
    std::optional<EventPoll> m_poll{std::in_place};
    std::optional<EventPoster> m_poster; // only where callback addresses are taken
    std::mutex m_wakeMutex;              // held by whoever wakes the thread, or takes the poll away
    QuietThread m_thread;
};

} // namespace VornNet

#endif
