// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_OUTGOINGQUEUE_H
#define VORNRELAY_OUTGOINGQUEUE_H

#include "Engine.h"
#include "RelayLoop.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace VornRelay {

/**
 * What is to be stored in one stream, in order.
 *
 * Up to a window of messages is published without waiting for answers. When one of them fails, no new ones
 * are published until all have their answer, or their time is up; then those that are not stored are
 * published again, in order and with the same number, since they may be stored all the same. There is one
 * queue for each stream, so that a full one holds up no other.
 *
 * A message that failed although a later one was stored gets a new number: the receiver would take the old
 * one for a repetition. If it was stored after all it arrives twice, rather than never.
 *
 * A full stream is tried with one message at a time: where room comes back in the middle of a window, later
 * messages pass those that were refused. Only when it has not been full for a while it gets more and more. So
 * it is with a stream that is not there. One whose servers elect a leader, or are too few to do so, looks
 * like that: messages are only refused after a while, and never when one has been stored there.
 *
 * Thread-safety: none. Blocking: none. Ownership: loop and engine must outlive it. Signals: none raised.
 * Errors: told to the handlers.
 */
class OutgoingQueue {
public:
    /** Gives a message a new number. */
    using Stamp = std::function<void(Engine::Message& message)>;

    /** Is told that the message is stored, or never will be. */
    using DoneHandler = std::function<void(bool bStored)>;

    /** How a queue works. */
    struct Terms {
        /// Most messages without an answer.
        std::size_t nWindow = 2048;
        /// So long a stream that has stored nothing may be missing until its messages are refused; none:
        /// always.
        std::optional<std::chrono::milliseconds> absentLimit = std::nullopt;
        /// So long a stream must not have been full until it gets more than one message at once.
        std::chrono::milliseconds calmTime{5000};
    };

    OutgoingQueue(RelayLoop& loop, Engine& engine, const Terms& terms, Stamp stamp)
        : m_loop(loop), m_engine(engine), m_terms(terms), m_nWindowNow(terms.nWindow),
          m_stamp(std::move(stamp)) {}

    ~OutgoingQueue() { m_loop.cancel(m_pauseTimer); }

    OutgoingQueue(const OutgoingQueue&) = delete;
    OutgoingQueue& operator=(const OutgoingQueue&) = delete;

    void add(Engine::Message&& message, DoneHandler onDone);

    /** The engine can be reached, or not. */
    void setConnected(bool bConnected);

    /** @return messages without outcome. */
    std::size_t size() const { return m_waiting.size() + m_nUnstored; }

    /** @return their bytes. */
    std::size_t bytes() const { return m_nBytes; }

    /** @return whether the stream had no room when it was last tried. */
    bool isFull() const { return m_bFull; }

    /** @return why the last one that was answered is not stored; empty when it is. */
    const std::string& failure() const { return m_sFailure; }

    /** @return how often messages were published again. */
    std::uint64_t repeated() const { return m_nRepeated; }

private:
    enum class State : char { undecided, settled, failed };

    struct Item {
        Engine::Message message;
        DoneHandler onDone;
        bool bStamped = false;
        State state = State::undecided;
    };

    void pump();
    void answered(std::uint64_t nSerial, Engine::Answer answer, const std::string& sText);
    bool isSettledBy(Engine::Answer answer);
    void fitWindow(Engine::Answer answer);
    void repeat();
    void putAt(std::size_t nPlace, std::vector<Item>&& items);
    void pause();

    RelayLoop& m_loop;
    Engine& m_engine;
    const Terms m_terms;
    std::size_t m_nWindowNow;
    const Stamp m_stamp;
    std::optional<RelayLoop::Clock::time_point> m_absentSince;
    std::string m_sFailure;
    RelayLoop::Clock::time_point m_lastNarrowed;
    std::size_t m_nStoredInARow = 0;
    std::deque<Item> m_waiting;
    std::deque<Item> m_published;
    std::uint64_t m_nFirstSerial = 0; // of the first published one
    std::size_t m_nUndecided = 0;
    std::size_t m_nUnstored = 0; // published and not settled
    std::size_t m_nBytes = 0;
    std::uint64_t m_nRepeated = 0;
    bool m_bConnected = false;
    bool m_bFailing = false;
    bool m_bFull = false;
    bool m_bHasStored = false;
    RelayLoop::Timer m_pauseTimer = 0;
    std::chrono::milliseconds m_pause{0};
};

} // namespace VornRelay

#endif
