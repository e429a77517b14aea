// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_SINKDELIVERY_H
#define VORNRELAY_SINKDELIVERY_H

#include "Delivery.h"
#include "Engine.h"
#include "Journal.h"
#include "LeaseTable.h"
#include "OutgoingQueue.h"
#include "PortOwners.h"
#include "RelayCounters.h"
#include "RelayLog.h"
#include "RelayLoop.h"
#include "RelaySettings.h"
#include "StreamReader.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace VornRelay {

/**
 * The client's side of a relay: what has come out of the stream is delivered to the sinks of this host.
 *
 * Each lease has a queue, of which one notification is under way, so that a slow sink holds up no other. When
 * the callback has returned, the number is noted in the journal, and then the message is acknowledged; what
 * is not above the journal's number has been delivered before, and is only acknowledged. What cannot be
 * delivered becomes a dead letter, which is stored before the message is acknowledged, and before anything
 * that came later is noted in the journal: it would be taken for delivered if the relay were killed.
 *
 * What was meant for a TCP port of this host has a queue in the same way, whose number is the port.
 *
 * Thread-safety: none, all on the loop's thread. Blocking: short writes to files. Ownership: everything that
 * is passed to the constructor must outlive it. Signals: none raised. Errors: logged and counted.
 */
class SinkDelivery {
public:
    SinkDelivery(RelayLoop& loop, Engine& engine, const RelaySettings& settings, RelayCounters& counters);
    ~SinkDelivery();

    SinkDelivery(const SinkDelivery&) = delete;
    SinkDelivery& operator=(const SinkDelivery&) = delete;

    LeaseTable& leases() { return m_leases; }

    StreamReader& reader() { return m_reader; }

    void setConnected(bool bConnected);

    /** Grants a lease, and has what waits for the name delivered to the new address. @throws LeaseRefused */
    const Lease& grant(const Lease& lease);

    /** Ends a lease. What waits and what still comes becomes dead letters, and senders are told. */
    void end(std::uint32_t nLease);

    /** Begins no further delivery, and gives up those to sinks that are away. */
    void stop();

    /** @return whether nothing is under way. */
    bool isIdle() const { return m_nUnderWay == 0 && m_deadLetters.size() == 0; }

    /** What is known of a lease's queue. */
    struct Queue {
        std::size_t nWaiting = 0;
        std::chrono::milliseconds oldest{0};
        unsigned int nTries = 0; ///< of the first in it
        bool bAway = false;      ///< nobody listens at the sink's address
    };

    Queue queueOf(std::uint32_t nLease) const;

    /** @return the TCP ports for which something waits. */
    std::vector<std::uint16_t> ports() const;

    /** Appends how long the oldest notification of each class of sinks has waited, as Prometheus reads it. */
    void printOldest(std::string& sText) const;

private:
    using Clock = RelayLoop::Clock;

    struct Notification {
        std::uint64_t nPosition = 0;
        std::string sSource;
        NotificationNumber number; // none when the sender has given an identity of his own
        Engine::Message message;
        Clock::time_point arrived;
        unsigned int nTries = 0;
    };

    struct LeaseQueue {
        std::deque<Notification> waiting;     // the first one may be under way
        std::unique_ptr<Delivery> spDelivery; // of the first one; null: none is under way
        std::string sAddress;                 // where it is under way to, also when the lease has moved
        bool bBurying = false;                // the first one is becoming a dead letter
        std::size_t nLetters = 0; // of later ones, that are not stored: what follows is buried too
    };

    void take(std::uint64_t nPosition, Engine::Message&& message);
    bool isSlow(std::uint32_t nLease, const LeaseQueue& queue) const;
    void buryNewest(std::uint32_t nLease, LeaseQueue& queue);
    void deliverNext(std::uint32_t nLease);
    bool isSink(std::uint32_t nSink) const;
    std::unique_ptr<Delivery> deliveryOf(std::uint32_t nSink, LeaseQueue& queue);
    bool isWanted(std::uint32_t nSink, const LeaseQueue& queue) const;
    void finished(std::uint32_t nSink, const Delivery::Result& result);
    void consumed(std::uint32_t nLease, LeaseQueue& queue);
    void settleFirst(std::uint32_t nLease, LeaseQueue& queue);
    bool wasDelivered(std::uint32_t nLease, const Notification& notification) const;
    void dropFirst(LeaseQueue& queue);
    void buryFirst(std::uint32_t nLease, LeaseQueue& queue);
    void buryLater(std::uint32_t nLease, LeaseQueue& queue, Notification&& notification,
                   const std::string& sReason);
    void bury(Notification&& notification, const std::string& sReason, std::function<void()> onStored = {});
    void look();
    void lookAt(std::uint32_t nLease);
    void lookForEnded();
    void readNamed(std::uint32_t nLease);

    RelayLoop& m_loop;
    Engine& m_engine;
    const RelaySettings& m_settings;
    RelayCounters& m_counters;
    LeaseTable m_leases;
    Journal m_journal;
    OutgoingQueue m_deadLetters;
    RareLine m_deadLetterLine;
    StreamReader m_reader;
    std::unordered_map<std::uint32_t, LeaseQueue> m_queues;
    PortOwners m_owners;
    std::size_t m_nUnderWay = 0;
    RelayLoop::Timer m_look = 0;
    std::uint32_t m_nLastLooked = 0;
    bool m_bStopped = false;
};

} // namespace VornRelay

#endif
