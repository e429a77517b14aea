// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_STREAMREADER_H
#define VORNRELAY_STREAMREADER_H

#include "Engine.h"
#include "RelayLoop.h"

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>

namespace VornRelay {

/**
 * Pulls this host's messages out of its stream, through one consumer or several, as long as there is room.
 *
 * Consumers are opened anew at each connection, so that everything that is not acknowledged comes again. What
 * comes again while it is still held is not handed on: only its receipt is renewed.
 *
 * A consumer that this host may not open anew lets newer messages pass those that it has handed out before,
 * which come again only after a time. So what arrives is kept back until these are all there, and then handed
 * on in order. What arrives before a consumer is open is kept back too: it was asked for by a relay that was
 * killed, and may be newer than what comes again.
 *
 * A consumer numbers what it hands out. Where a number is missing, the message went elsewhere: to a relay
 * that was killed, whose request the engine read late, or it was dropped on its way. It would come again
 * after newer ones, and so the consumer is opened anew before these are handed on.
 *
 * An engine ends a pull after a time, and may do so silently: nats-server 2.9 does, when a message comes just
 * then. So there is a fresh one before the old one ends.
 *
 * Thread-safety: none. Blocking: none. Ownership: loop and engine must outlive it. Signals: none raised.
 * Errors: a consumer that cannot be opened is logged and tried again.
 */
class StreamReader {
public:
    using MessageHandler = std::function<void(std::uint64_t nPosition, Engine::Message&& message)>;

    StreamReader(RelayLoop& loop, Engine& engine, MessageHandler onMessage);
    ~StreamReader();

    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;

    /** Reads what has a subject that matches @p sFilter. @param nMost messages that may be held */
    void add(const std::string& sConsumer, const std::string& sFilter, std::size_t nMost);

    /** Goes on until nothing is left, and then removes the consumer. */
    void remove(const std::string& sConsumer);

    void setConnected(bool bConnected);
    void arrived(Engine::Arrival&& arrival);
    void pullEnded(const std::string& sConsumer);
    void consumerLost(const std::string& sConsumer);

    /** The message of that position has found its end. */
    void acknowledge(std::uint64_t nPosition);

    /** Asks for no more; what is held is still acknowledged. */
    void stop() { m_bStopped = true; }

    std::size_t held() const { return m_held.size(); }

    /** @return whether all consumers are open. */
    bool isReading() const;

private:
    struct Pull {
        std::size_t nLeft = 0;
        RelayLoop::Clock::time_point asked;
    };

    struct Consumer {
        std::string sFilter;
        std::size_t nMost = 0;
        std::deque<Pull> pulls; // that have not ended, in the order in which the engine serves them
        std::size_t nHeld = 0;
        bool bOpen = false;
        bool bOpening = false;
        bool bEnding = false;
        RelayLoop::Clock::time_point heard; // when something came last, or was asked for after a pause
        std::uint64_t nDelivery = 0;        // of what came last
        std::uint64_t nAwaited =
            0; // messages up to nHandedOut that have to come before the others are handed on
        std::uint64_t nHandedOut = 0;
        RelayLoop::Clock::time_point awaitedUntil;
        std::map<std::uint64_t, Engine::Message> keptBack; // by position
    };

    struct Held {
        std::string sConsumer;
        std::string sReceipt;
    };

    void open(const std::string& sConsumer);
    void opened(Consumer& consumer, const Engine::Opened& opened);
    void handOn(Consumer& consumer);
    void ask(const std::string& sConsumer, Consumer& consumer);
    void look();

    RelayLoop& m_loop;
    Engine& m_engine;
    const MessageHandler m_onMessage;
    std::map<std::string, Consumer> m_consumers;
    std::unordered_map<std::uint64_t, Held> m_held; // by position
    RelayLoop::Timer m_look = 0;
    std::uint64_t m_nConnections = 0;
    bool m_bConnected = false;
    bool m_bStopped = false;
};

} // namespace VornRelay

#endif
