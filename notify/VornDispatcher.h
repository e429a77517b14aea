// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNDISPATCHER_H
#define VORNDISPATCHER_H

#include "VornNotifyExport.h"

#include <VornNotification.h>
#include <VornProxyDependent.h>
#include <VornString.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace VornNet {

/**
 * The service's end of notifications that are to arrive: takes them at once, delivers them on a thread of its
 * own, tries again what was refused or lost, and tells what became of each.
 *
 * A service makes one dispatcher, keeps its VornProxyDependent objects as before, and calls post() where it
 * called remoteNotify(). post() has addContent() write the content on the caller's thread and queues it;
 * neither the proxy nor the notification is needed afterwards. Each callback address has a queue of its own:
 * to one address notifications go one after the other in the order of their post(), the next one when the
 * one before has its outcome; addresses do not wait for each other. What cannot be delivered is tried again,
 * after a pause that grows, until the notification's time limit.
 *
 * What goes over the wire is what remoteNotify() sends, to the same sinks. A delivery is confirmed without
 * any message: the dispatcher closes its sending side and waits for the sink to close; a sink that closes
 * having read everything has called its callback, and the callback has returned.
 *
 * How often a callback is called for one notification:
 * - pipe: exactly once, whatever it reads. The content is only sent to a sink that is reading at that moment,
 *   and a sink that has taken a notification is never offered it again.
 * - TCP: exactly once where callbacks read the whole content, and where the sink is a VornSteadySink. With a
 *   VornLibraryCallbackSink whose callback leaves bytes unread or throws, what the dispatcher sees is what it
 *   sees of a notification thrown away unread: a reset. Terms::nDoubtfulTries decides: 1 calls the callback
 *   at most once and may lose, more may call it as often as that.
 *   Such a sink may also move to another port on its own (see there); what is queued then expires with 111,
 *   or goes on after redirect().
 * - UDP: at most once by this side, and nobody knows: the outcome is `sent`. The pause between two datagrams
 *   to one address (Options::datagramPause) is all that protects a sink that closes its server in between.
 *
 * Queues live in memory: they end with the process. A process that crashes after a callback's sink has read
 * everything and before the callback has returned counts as `delivered` with a VornLibraryCallbackSink, not
 * with a VornSteadySink.
 *
 * Addresses are taken strictly: "pipe:" and a name without '/' that is not "." or ".." and fits a path of 107
 * bytes; "socket:" or "udp:", a dotted IPv4 address of four numbers, ':' and a decimal port (-32768 to 65535,
 * of which the low 16 bits count and are not 0); 0.0.0.0 is none. From a ';' behind the port on nothing is
 * looked at. Names of hosts are never looked up, since that may take a minute and an unknown one would reach
 * this host; "ssl" addresses are refused, since that layer carries nothing.
 *
 * Thread-safety: every operation may be called from any thread; the destructor by the owner, alone. A process
 *   that forks must not use the dispatcher in the child.
 * Blocking: post() only with Overflow::wait; flush(), stop() and the destructor up to their time limit and
 *   for as long as the result handler runs. Nothing else waits for a network or a handler.
 * Ownership: descriptors (all close-on-exec) and threads belong to the dispatcher; after stop() none is left.
 * Signals: none raised, also while SIGPIPE is at its default; its threads have all signals blocked.
 * Errors: VornException from the constructor, "VornDispatcher::VornDispatcher: failed to start." with the
 *   error number, and from post(), see there. Failures of single tries are retried, also those of the process
 *   itself (24, no descriptor left), and end in the notification's result. A result handler that throws is
 *   logged at level 1 and called for the next result.
 */
class VORNNOTIFY_API VornDispatcher {
public:
    /** What became of a notification. */
    enum class Outcome {
        delivered, ///< a sink has read all of it, and closed after its callback had returned
        sent,      ///< UDP: handed to the network, which is all that can be known
        unread,  ///< a sink took it, and closed without having read all of it: no such callback, or one that
                 ///< failed or left bytes; over TCP: that or thrown away, nDoubtfulTries times
        expired, ///< the time limit ran out first
        dropped, ///< pushed out of its full queue by a newer one (Overflow::dropOldest)
        cancelled, ///< by cancel()
        stopped    ///< the dispatcher was stopped first
    };

    /** The result of one notification: there is exactly one for each post() that has returned. */
    struct Result {
        std::uint64_t nTicket = 0;          ///< what post() has returned
        VornString sAddress;                ///< the callback address, after redirect() the new one
        int nHandle = 0;                    ///< the proxy's dependent handle
        Outcome outcome = Outcome::stopped; ///< what became of it
        int nCode = 0;                      ///< error number of the last failed try; 0 when none failed
        unsigned int nTries = 0;            ///< connections attempted; over UDP datagrams
        unsigned int nDoubtfulTries = 0; ///< failed tries whose notification may have reached the callback:
                                         ///< with 0, `delivered` is exactly once and all else never
        std::chrono::microseconds elapsed{0}; ///< from post() to the outcome
    };

    /** Called for each result. */
    using ResultHandler = std::function<void(const Result& result)>;

    /** What post() does when the queue of the address, or the memory for all, is full. */
    enum class Overflow {
        refuse,     ///< throws VornException, 105 (ENOBUFS)
        dropOldest, ///< the oldest that waits for the same address, and is not being tried, is `dropped`;
                    ///< where there is none, as refuse
        wait        ///< waits for room; when the notification's time limit runs out first, throws 110
                    ///< (ETIMEDOUT). On the result handler's thread as refuse
    };

    /** What is granted to one notification. */
    struct Terms {
        std::chrono::milliseconds timeLimit{10'000}; ///< from post() to the outcome; above 0
        unsigned int nDoubtfulTries = 64; ///< TCP: after so many doubtful tries it is `unread`; 1 never tries
                                          ///< again what may have reached the callback. 1 or more
    };

    /** How a dispatcher works. The values given here suit most services. */
    struct Options {
        VornString sName = "dispatcher";             ///< names its threads, cut to 15 bytes
        Terms terms;                                 ///< for post() without terms
        Overflow overflow = Overflow::refuse;        ///< what happens when there is no room
        std::size_t nQueueLimit = 10'000;            ///< most notifications without outcome for one address
        std::size_t nByteLimit = 64UL * 1024 * 1024; ///< most bytes without outcome for all, handles included
        std::size_t nConnectionLimit = 0; ///< most connections at once; 0: half the descriptors that
                                          ///< the process may have, at most 4096
        std::chrono::milliseconds connectLimit{
            1'000};                                  ///< TCP: a try that is not connected by then has failed
        std::chrono::microseconds firstPause{20};    ///< before the second try; doubled for each further one
        std::chrono::milliseconds longestPause{250}; ///< no pause is longer; each is varied by up to a half
        std::chrono::microseconds datagramPause{1'000}; ///< UDP: between two datagrams to one address
        std::chrono::milliseconds stopLimit{1'000};     ///< what the destructor passes to stop()
        ResultHandler onResult; ///< called on a thread of its own, one call at a time, in
                                ///< the order of the outcomes; may be empty
    };

    /** Sums since the construction, and what is there now. */
    struct Statistics {
        std::uint64_t nPosted = 0;        ///< posts that returned: the sum of all outcomes and nQueued
        std::uint64_t nRefused = 0;       ///< posts that threw 105 or 110
        std::uint64_t nDelivered = 0;     ///< outcomes `delivered`; and so on
        std::uint64_t nSent = 0;          ///< @copydoc nDelivered
        std::uint64_t nUnread = 0;        ///< @copydoc nDelivered
        std::uint64_t nExpired = 0;       ///< @copydoc nDelivered
        std::uint64_t nDropped = 0;       ///< @copydoc nDelivered
        std::uint64_t nCancelled = 0;     ///< @copydoc nDelivered
        std::uint64_t nStopped = 0;       ///< @copydoc nDelivered
        std::uint64_t nTries = 0;         ///< connections and datagrams attempted
        std::uint64_t nDoubtfulTries = 0; ///< failed tries whose notification may have reached the callback
        std::size_t nQueued = 0;          ///< notifications without outcome
        std::size_t nQueuedBytes = 0;     ///< their bytes, handles included
        std::size_t nAddresses = 0;       ///< addresses with notifications without outcome
        std::size_t nConnections = 0;     ///< connections open now
    };

    /** Starts a dispatcher with the options as they stand above. @throws VornException, see above */
    VornDispatcher();

    /**
     * Starts a dispatcher.
     * @throws VornException 22 (EINVAL) "VornDispatcher::VornDispatcher: invalid option." for a limit or
     * pause that is 0 or negative (nConnectionLimit and datagramPause may be 0, stopLimit too) or
     * terms.nDoubtfulTries 0; else see above
     */
    explicit VornDispatcher(const Options& options);

    /** As stop(options.stopLimit). It must not run on the result handler's thread: that ends the process. */
    ~VornDispatcher();

    VornDispatcher(const VornDispatcher&) = delete;
    VornDispatcher& operator=(const VornDispatcher&) = delete;

    /**
     * Queues one notification on the terms of the options.
     *
     * proxy.addContent() is called at once, once, on the caller's thread, with a connection that can be
     * written but not read. The result handler may be called before this returns.
     * @return the notification's number: 1, 2, 3, ... in the order in which posts of all threads are queued
     * @throws VornException, queueing nothing, and nothing is sent: 22 (EINVAL) "VornDispatcher::post:
     * invalid callback address.", or "VornDispatcher::post: invalid terms."; 95 (EOPNOTSUPP)
     * "VornDispatcher::post: addContent() must not read."; 90 (EMSGSIZE) "VornDispatcher::post: notification
     * too long." above 65507 bytes over UDP, above nByteLimit otherwise; 105 (ENOBUFS) and 110 (ETIMEDOUT)
     * "VornDispatcher::post: queue full."; 108 (ESHUTDOWN) "VornDispatcher::post: stopped." And whatever
     * addContent() throws
     */
    std::uint64_t post(VornProxyDependent& proxy, const VornNotification& notification);

    /** Queues one notification on terms of its own; all else as with the terms of the options. */
    std::uint64_t post(VornProxyDependent& proxy, const VornNotification& notification, const Terms& terms);

    /**
     * Waits until everything posted before the call has its outcome and the result handler has returned from
     * it. What others post meanwhile is not waited for.
     * @param timeLimit the longest time to wait; 0 only looks, negative waits without limit
     * @return true when all have; false when the time ran out
     * @throws VornException 35 (EDEADLK) "VornDispatcher::flush: called by the result handler."
     */
    bool flush(std::chrono::milliseconds timeLimit);

    /**
     * Gives up everything for that address, also the one that is being tried: outcome `cancelled`. For a
     * client that has left. When this returns nothing is sent to that address but what is posted afterwards.
     * @return how many
     */
    std::size_t cancel(const VornString& sAddress);

    /**
     * Takes everything for one address to another one, before what waits there, in its order. For a client
     * that subscribes anew under another address. A try in progress ends as if its connection had been reset.
     * What is posted to the old address afterwards goes there. Time limits stay; the new queue may exceed its
     * limit.
     * @return how many
     * @throws VornException 22 (EINVAL) "VornDispatcher::redirect: invalid callback address." for @p sTo
     */
    std::size_t redirect(const VornString& sFrom, const VornString& sTo);

    /** @return how many notifications for that address have no outcome yet. */
    std::size_t queued(const VornString& sAddress) const;

    /** @return all numbers, of one moment. */
    Statistics statistics() const;

    /**
     * Accepts nothing more, goes on delivering what is queued, and ends; what has no outcome when the time is
     * up is `stopped`. When it returns every result has been handed to the handler and the threads have
     * ended. Again, or from a second thread: waits until the first call is through.
     * @param timeLimit for what is queued; 0 ends at once, negative waits until everything has its outcome
     * @throws VornException 35 (EDEADLK) "VornDispatcher::stop: called by the result handler."
     */
    void stop(std::chrono::milliseconds timeLimit);

    /** @return the outcome's name as in the source, such as "delivered"; "unknown" for any other value. */
    static const char* nameOf(Outcome outcome);

private:
    class VORNNOTIFY_LOCAL State;
    std::unique_ptr<State> m_spState;
};

} // namespace VornNet

#endif
