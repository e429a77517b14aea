// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUBSCRIBER_H
#define VORNSUBSCRIBER_H

#include "VornNotifyExport.h"
#include "VornPosition.h"

#include <VornConnection.h>
#include <VornString.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace VornNet {

/**
 * The client's end of a subscription: subscribes at a VornPublisher, and stays subscribed.
 *
 * It connects, asks for the topic, and calls the event handler for each event in the order of their numbers,
 * each once. When the service is not there, goes away, is killed or is silent for three of its beats, it
 * tries again, after a pause that grows, until it is stopped; it then asks for what comes after the last
 * event that it has called for. What the service cannot give any more is a gap: the gap handler is called
 * between the two events where it lies, and the program reads the state anew by its own means. There is no
 * gap that is not told.
 *
 * It works with a thread of its own, or, with Options::bOwnThread false, within the program's event loop:
 * poll getHandle() for reading, and call dispatch(). The descriptor is level-triggered, one and the same from
 * construction to destruction, and covers time limits and pauses too, so that no other timer is needed.
 *
 * Across processes: a program keeps the position of its last event, which each event carries, with what it
 * makes of the events, and gives it back in Options::position: then each event takes effect exactly once. Or
 * it leaves that to Options::sPositionFile, which is written after each call of the event handler: then a
 * process that is killed between the two has that one event again.
 *
 * Thread-safety: every operation may be called from any thread. Handlers are called one at a time, on the
 * subscriber's thread or within dispatch(), and may call everything, also stop() and the destructor.
 * Blocking: stop() and the destructor for as long as a handler runs on another thread. Nothing else: no
 * operation waits for a network.
 * Ownership: descriptors (close-on-exec) and the thread are the subscriber's; after stop() none is left, but
 * the descriptor of getHandle(), which closes with the subscriber.
 * Signals: none raised; its thread has all signals blocked.
 * Errors: VornException from the constructor only. Whatever goes wrong later is a state, see StateHandler.
 * What a handler throws, of any type, is logged at level 1 and counted; the event counts as called for. A
 * process that forks must not use the subscriber in the child.
 */
class VORNNOTIFY_API VornSubscriber {
public:
    /** Which events are wanted when there is no position to go on from. */
    enum class Start {
        next,  ///< those published after the subscription
        last,  ///< the newest, if there is one, and then those
        oldest ///< all that the service still has, and then those
    };

    /** How things stand. */
    enum class State {
        connecting, ///< not subscribed yet: the first tries
        connected,  ///< subscribed
        away,       ///< was subscribed, and the service is not there: with reason and error number
        refused, ///< the service does not want it: with the service's words. It is tried again all the same
        stopped  ///< by stop()
    };

    /** What comes with an event. */
    struct Event {
        VornString sTopic;     ///< the topic
        VornPosition position; ///< after this event; position.nNumber is the event's number
        bool bOld = false;     ///< it was published before this connection had been made
    };

    /** Events that are not to be had any more. */
    struct Gap {
        VornString sTopic;         ///< the topic
        VornPosition last;         ///< the last event called for; nowhere when there was none
        VornPosition next;         ///< it goes on after this
        std::uint64_t nMissed = 0; ///< how many were missed; 0: not known, for another history has begun
    };

    /** How things stand, and why. */
    struct Status {
        State state = State::connecting;             ///< how things stand
        std::chrono::system_clock::time_point since; ///< since when
        VornString sReason;                          ///< why, in words; empty when connected
        int nCode = 0;                               ///< the error number, or 0
        unsigned int nTries = 0;                     ///< tries that have failed since it was last connected
    };

    /** Called for each event. @param content holds what the service's writer has written, in memory */
    using EventHandler = std::function<void(VornConnection& content, const Event& event)>;
    /** Called for each gap. */
    using GapHandler = std::function<void(const Gap& gap)>;
    /** Called when the state has changed, or its reason; not for each try. */
    using StateHandler = std::function<void(const Status& status)>;

    /** How a subscriber works. The values given here suit most clients. */
    struct Options {
        VornString sName = "subscriber"; ///< names its thread, cut to 15 bytes
        bool bOwnThread = true;          ///< false: getHandle() and dispatch()
        Start start = Start::next;       ///< where to begin
        VornPosition position;           ///< where to go on; nowhere: as start says
        VornString sPositionFile; ///< a file that keeps the position; what it says goes before @p position.
                                  ///< Empty: none. It is locked; one that another process has throws 11
        VornString sWords;        ///< told to the service, at most 4096 bytes
        GapHandler onGap;         ///< may be empty, but then gaps are only counted
        StateHandler onState;     ///< may be empty
        std::vector<unsigned int> allowedUsers;       ///< pipe: users that the service may run as; empty: any
        std::size_t nEventLimit = 16UL * 1024 * 1024; ///< a service that sends longer events is left
        std::chrono::milliseconds answerLimit{5'000}; ///< from connecting to the service's answer
        std::chrono::milliseconds firstPause{10};     ///< before the second try; doubled for each further one
        std::chrono::milliseconds longestPause{2'000}; ///< no pause is longer; each is varied by up to a half
    };

    /** Sums since the construction. */
    struct Statistics {
        std::uint64_t nEvents = 0;        ///< calls of the event handler
        std::uint64_t nFailed = 0;        ///< those that have thrown
        std::uint64_t nGaps = 0;          ///< gaps
        std::uint64_t nMissed = 0;        ///< events in those gaps, where that is known
        std::uint64_t nRepeated = 0;      ///< events that came although they had been called for: left out
        std::uint64_t nSubscriptions = 0; ///< how often it was connected
        std::uint64_t nTries = 0;         ///< connections attempted
        std::uint64_t nNewest = 0;        ///< the newest number that the service has told of
    };

    /** Subscribes with the options as they stand above. */
    VornSubscriber(const VornString& sAddress, const VornString& sTopic, const EventHandler& onEvent);

    /**
     * Subscribes. It does not wait for the service, which need not be there yet.
     * @param sAddress the service: "pipe:NAME" or "socket:ADDRESS:PORT", a dotted IPv4 address
     * @throws VornException "VornSubscriber::VornSubscriber: invalid option." 22 (EINVAL) for an address or
     * topic that is none, an empty event handler, words that are too long or hold a zero byte, and limits and
     * pauses that are 0 or negative; "VornSubscriber::VornSubscriber: failed to open position." with the
     * error number, 22 for a file that holds none; "VornSubscriber::VornSubscriber: failed to start." with
     * the error number
     */
    VornSubscriber(const VornString& sAddress, const VornString& sTopic, const EventHandler& onEvent,
                   const Options& options);

    /** As stop(). */
    ~VornSubscriber();

    VornSubscriber(const VornSubscriber&) = delete;
    VornSubscriber& operator=(const VornSubscriber&) = delete;

    /** @return the descriptor to poll for reading; -1 when the subscriber has its own thread. */
    int getHandle() const;

    /**
     * Does what there is to do, and returns: calls handlers for what has arrived, at most about 64 KiB of it
     * at a time, and goes on with connecting. When there is more, getHandle() stays readable.
     * @return how many events were called for. 0 when the subscriber has its own thread, or another thread,
     * or a handler of this one, is in dispatch() already
     */
    std::size_t dispatch();

    /** @return how things stand. */
    Status status() const;

    /** @return the place after the last event called for. */
    VornPosition position() const;

    /** @return all numbers, of one moment. */
    Statistics statistics() const;

    /**
     * The service has moved: leaves the old address and subscribes at the new one at once.
     * @throws VornException 22 (EINVAL) "VornSubscriber::setAddress: invalid address."
     */
    void setAddress(const VornString& sAddress);

    /**
     * Ends the subscription. When it returns no handler runs or is called any more, but for the one that
     * called it. The state handler is not told. Again: does nothing.
     */
    void stop();

    /** @return the state's name as in the source, such as "away"; "unknown" for any other value. */
    static const char* nameOf(State state);

private:
    class Work;
    std::shared_ptr<Work> m_spWork;
};

} // namespace VornNet

#endif
