// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNPUBLISHER_H
#define VORNPUBLISHER_H

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
 * The service's end of subscriptions: a server that clients subscribe at, and that tells them events.
 *
 * publish() numbers an event, puts it into its topic's history and returns; it waits for nobody. Each
 * subscriber has a place in the history and gets what comes after it, in order, as fast as it reads. Nothing
 * is kept for each subscriber and event: one that is slow, silent, stopped or hostile costs a descriptor, and
 * no other subscriber any time. One that falls out of the history is told so, with the numbers that it has
 * missed, and goes on with the oldest event that is kept.
 *
 * A subscription lasts as long as the client's connection. A client that exits, is killed or closes is gone
 * at once: there is nothing to clean up, and nothing to poll for. Over TCP, one whose host is gone is noticed
 * after three beats.
 *
 * A client that comes back says which event it saw last and gets those after it. With a directory for them
 * (Options::sDirectory) the histories are kept in files that outlive the process, however it ends: a client
 * then misses nothing when the service is killed and started again. Without one a new process begins a new
 * history, and each client that comes back is told that there is a gap.
 *
 * The address is "pipe:" and a name without '/' that is not "." or ".." and fits a path of 107 bytes, or
 * "socket:", a dotted IPv4 address or '*' for all, ':' and a port; with port 0 the system chooses, and
 * getAddress() tells. A pipe's file gets mode 0770; one that a dead server has left is replaced, a living
 * one's is respected (98). A file that vanishes is created again within a second.
 *
 * Topics are named by 1 to 64 of the characters A-Z, a-z, 0-9, '.', '_' and '-', not beginning with '.'.
 *
 * Thread-safety: every operation may be called from any thread, also by the handlers but for flush() and
 * stop(); the destructor by the owner, alone. Handlers are called on one thread of the publisher, one at a
 * time; a slow one delays new subscriptions and nothing else.
 * Blocking: flush(), stop() and the destructor up to their time limit and for as long as a handler runs.
 * publish() not at all, but for the file system when histories are kept in files.
 * Ownership: descriptors (all close-on-exec), threads, the pipe's file and the locks on the history files are
 * the publisher's; after stop() none is left.
 * Signals: none raised, also while SIGPIPE is at its default; its threads have all signals blocked.
 * Errors: VornException from the constructor, publish() and addTopic(), see there. What goes wrong with one
 * subscriber ends its subscription. A handler that throws is logged at level 1; onSubscribe has then refused.
 * A process that forks must not use the publisher in the child.
 */
class VORNNOTIFY_API VornPublisher {
public:
    /** Writes an event's content. */
    using Writer = std::function<void(VornConnection& content)>;

    /** A subscriber, or one that asks to become one. */
    struct Subscriber {
        std::uint64_t nId = 0;     ///< counts from 1; no number is used twice
        VornString sTopic;         ///< what it has subscribed
        VornString sFrom;          ///< "pid 4711 user 1000", or over TCP "10.0.0.5:40123"
        int nProcess = -1;         ///< pipe: its process, as the kernel says; -1 over TCP
        unsigned int nUser = ~0U;  ///< pipe: its effective user id, as the kernel says
        unsigned int nGroup = ~0U; ///< pipe: its effective group id, as the kernel says
        VornString sWords;         ///< what it says about itself: not checked by anybody
        VornString sCallback;      ///< the callback address that it wants events at; empty: its connection
        long hCallback = 0;        ///< the handle there
        VornPosition position;     ///< after the last event that was sent; when it asks, its last one seen
        std::uint64_t nBehind = 0; ///< events published and not sent to it yet
    };

    /** Why a subscriber is no more. */
    enum class Leaving {
        closed, ///< it has closed its connection, exited or been killed; with 104 (ECONNRESET) or 32 (EPIPE)
                ///< there was something that it had not read
        lost,   ///< the connection has failed, or its callback address does not answer, with the error number
        violated, ///< it has sent what it must not
        dropped,  ///< by drop()
        stopped   ///< by stop()
    };

    /** Decides about a subscription. @return empty to admit it, or why not, which the client is told */
    using SubscribeHandler = std::function<VornString(const Subscriber& asking)>;

    /** Called when a subscriber that was admitted is no more. @param nCode the error number, or 0 */
    using LeaveHandler = std::function<void(const Subscriber& gone, Leaving leaving, int nCode)>;

    /** How a publisher works. The values given here suit most services. */
    struct Options {
        VornString sName = "publisher"; ///< names its threads, cut to 15 bytes
        VornString sPipeGroup;          ///< pipe: the group that the file is given to; empty: the process's
        std::vector<unsigned int>
            allowedUsers; ///< pipe: user ids that may subscribe; empty: whoever the file lets in
        std::vector<VornString>
            allowedNetworks;             ///< TCP: sources that may, as "10.0.0.5" or "10.0.0.0/8"; empty: all
        bool bCallbackAddresses = false; ///< whether a client may have its events sent to a callback address,
                                         ///< which lets it choose where the service connects to
        SubscribeHandler onSubscribe;    ///< may be empty: all are admitted
        LeaveHandler onLeave;            ///< may be empty

        VornString sDirectory; ///< an existing directory for the histories; empty: memory only
        std::size_t nHistoryBytes =
            4UL * 1024 * 1024;                   ///< size of each topic's history: so many bytes of the
                                                 ///< newest events are kept, 16 bytes each for the frame
        std::size_t nEventLimit = 1024UL * 1024; ///< most bytes of one event's content; at most a quarter
                                                 ///< of nHistoryBytes counts

        std::size_t nSubscriberLimit =
            0; ///< most subscribers; 0: half the descriptors that the process may have
        std::size_t nRequestLimit = 64; ///< most clients that have connected and not subscribed yet; one
                                        ///< more, and the oldest of them is cut
        std::chrono::milliseconds requestLimit{2'000}; ///< from connecting to the end of the request
        std::chrono::milliseconds beat{5'000}; ///< a subscriber that was sent nothing for so long is sent
                                               ///< a sign of life
        std::chrono::milliseconds stopLimit{1'000}; ///< what the destructor passes to stop()
    };

    /** Sums since the construction, and what is there now. */
    struct Statistics {
        std::uint64_t nPublished = 0;   ///< events published
        std::uint64_t nSent = 0;        ///< events sent, each subscriber counted
        std::uint64_t nSentBytes = 0;   ///< bytes sent to subscribers
        std::uint64_t nGaps = 0;        ///< gaps that subscribers were told of
        std::uint64_t nMissed = 0;      ///< events that lay in them, of this history
        std::uint64_t nConnections = 0; ///< connections accepted
        std::uint64_t nSubscribed = 0;  ///< subscriptions admitted
        std::uint64_t nRefused = 0;  ///< subscriptions refused: topic unknown, request not understood, by the
                                     ///< lists, the limits or onSubscribe
        std::uint64_t nTimedOut = 0; ///< clients cut before they had subscribed: time limit, nRequestLimit
        std::uint64_t nLeft = 0;     ///< subscribers that are no more
        std::size_t nSubscribers = 0; ///< subscribers now
        std::size_t nBehind = 0;      ///< subscribers that have not been sent everything yet
    };

    /** Opens a publisher with the options as they stand above. */
    VornPublisher(const VornString& sAddress, const std::vector<VornString>& topics);

    /**
     * Opens a publisher; when it returns, clients can subscribe.
     * @throws VornException "VornPublisher::VornPublisher: invalid option." 22 (EINVAL) for an address,
     * topic, network or group that is none, or a limit that is 0 or negative (nSubscriberLimit and stopLimit
     * may be 0), or a history of less than 4096 bytes; "VornPublisher::VornPublisher: failed to open server."
     * with the error number: 2 no pipe directory, 13 no permission, 98 in use; "VornPublisher::VornPublisher:
     * failed to open history." with the error number: 11 another process has it, 28 no space;
     * "VornPublisher::VornPublisher: failed to start." with the error number
     */
    VornPublisher(const VornString& sAddress, const std::vector<VornString>& topics, const Options& options);

    /** As stop(options.stopLimit). It must not run on the handlers' thread: that ends the process. */
    ~VornPublisher();

    VornPublisher(const VornPublisher&) = delete;
    VornPublisher& operator=(const VornPublisher&) = delete;

    /** @return the address to subscribe at, such as "pipe:buildd" or "socket:127.0.0.1:40123". */
    VornString getAddress() const;

    /**
     * Adds a topic. One that is there already is left as it is.
     * @throws VornException 22 (EINVAL) "VornPublisher::addTopic: invalid topic."; "VornPublisher::addTopic:
     * failed to open history." with the error number, see above
     */
    void addTopic(const VornString& sTopic);

    /**
     * Publishes an event.
     *
     * @param write is called at once, once, on the caller's thread, with a connection that can be written but
     * not read. Two threads that publish at the same time are put in some order.
     * @return the event's number. With a directory, the event is kept from now on, whatever happens to the
     * process
     * @throws VornException, and nothing is published: 22 (EINVAL) "VornPublisher::publish: unknown topic.";
     * 90 (EMSGSIZE) "VornPublisher::publish: event too long."; 95 (EOPNOTSUPP) "VornPublisher::publish: the
     * writer must not read."; 108 (ESHUTDOWN) "VornPublisher::publish: stopped." And whatever the writer
     * throws
     */
    std::uint64_t publish(const VornString& sTopic, const Writer& write);

    /**
     * @return the topic's place after its newest event. A service that answers questions about its state
     * sends it with the answer, so that the client knows which events the state contains
     * @throws VornException 22 (EINVAL) "VornPublisher::position: unknown topic."
     */
    VornPosition position(const VornString& sTopic) const;

    /** @return all subscribers, in the order of their ids. */
    std::vector<Subscriber> subscribers() const;

    /**
     * Ends a subscription: the client is told the reason, and takes it as a refusal.
     * @return false when there is no such subscriber
     */
    bool drop(std::uint64_t nId, const VornString& sReason);

    /**
     * Waits until all who subscribe now have been sent everything published before the call, or have left.
     * @param timeLimit the longest time to wait; 0 only looks, negative waits without limit
     * @return true when they have
     * @throws VornException 35 (EDEADLK) "VornPublisher::flush: called by a handler."
     */
    bool flush(std::chrono::milliseconds timeLimit);

    /** @return all numbers, of one moment. */
    Statistics statistics() const;

    /**
     * Takes no subscriptions and no events more, sends what has been published, says goodbye to each
     * subscriber, and ends. Clients come back when a publisher opens at the same address. Again, or from a
     * second thread: waits until the first call is through.
     * @param timeLimit for what is left to send; 0 ends at once, negative waits for the slowest
     * @throws VornException 35 (EDEADLK) "VornPublisher::stop: called by a handler."
     */
    void stop(std::chrono::milliseconds timeLimit);

    /** @return the reason's name as in the source, such as "closed"; "unknown" for any other value. */
    static const char* nameOf(Leaving leaving);

private:
    class State;
    std::unique_ptr<State> m_spState;
};

} // namespace VornNet

#endif
