// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_TOPICMIRROR_H
#define VORNRELAY_TOPICMIRROR_H

#include "EventBatch.h"
#include "RelayLog.h"
#include "RelayLoop.h"

#include <History.h>
#include <PositionFile.h>
#include <VornPublisher.h>

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace VornRelay {

/**
 * The subscribers' side of a topic of another host: reads what is stored, and publishes it again on this
 * host, at "pipe:TOPIC@HOST", in the same history and with the same numbers.
 *
 * A publisher goes on with the history that it finds in its directory. So when events are missing, or the
 * service has begun another history, the publisher is closed, a history that begins there is written in its
 * place, and a publisher opened on that; subscribers come back by themselves, and are told the gap by what
 * they ask for. Without a history to go on with, all that is stored is read before the publisher is opened,
 * so that nobody comes to one that has less than he has seen.
 *
 * A file beside the history says up to which position of the stream it goes. An event that is stored twice,
 * or read again because the relay was killed before it had noted that, is known by its number.
 *
 * Thread-safety: none. Blocking: when a publisher is closed, until its history is on the disk. Ownership:
 * loop and engine must outlive it. Signals: none raised. Errors: std::system_error from the constructor; what
 * goes wrong later is logged and tried again.
 */
class TopicMirror {
public:
    /** @param sDirectory for histories of topics of that host; it is created */
    TopicMirror(RelayLoop& loop, Engine& engine, const std::string& sDirectory, std::string sHost,
                std::string sTopic);
    ~TopicMirror();

    TopicMirror(const TopicMirror&) = delete;
    TopicMirror& operator=(const TopicMirror&) = delete;

    void setConnected(bool bConnected);

    /** Something has been stored. */
    void poll();

    nlohmann::json status() const;

private:
    std::string address() const { return "pipe:" + m_sTopic + "@" + m_sHost; }

    void look();
    void openHistory();
    void openPublisher();
    void foundNewest(const Engine::Stored& newest);
    void readNext();
    void foundNext(const Engine::Stored& next);
    void take(const Engine::Stored& stored);
    bool mustWait(const EventBatch& batch);
    void publish(const EventBatch& batch);
    void beginAfter(const VornNet::VornPosition& before);
    void append(const std::string& sEvent);
    void goOn();
    void fail(const std::string& sWhy);

    RelayLoop& m_loop;
    Engine& m_engine;
    const std::string m_sDirectory;
    const std::string m_sHost;
    const std::string m_sTopic;
    const VornNet::PositionFile m_place; // the history, and in place of an event's number that in the stream
    std::unique_ptr<VornNet::VornPublisher> m_spPublisher; // one of the two, or none after a failure
    std::unique_ptr<VornNet::History> m_spHistory;
    VornNet::VornPosition m_position;       // after the last event that is published; nowhere: none yet
    std::uint64_t m_nRead = 0;              // up to here the stream has been read
    std::uint64_t m_nNewest = 0;            // up to here there is something to read
    std::optional<std::uint64_t> m_nOpenAt; // from here on the history may be published
    const std::shared_ptr<void> m_spAlive = std::make_shared<char>(); // late answers are not for it any more
    bool m_bConnected = false;
    bool m_bReading = false;
    bool m_bNews = false; // has come while it was reading
    std::optional<RelayLoop::Clock::time_point> m_waitUntil;
    RelayLoop::Clock::time_point m_nextPoll;
    RelayLoop::Timer m_look = 0;
    RelayLoop::Timer m_wait = 0;
    std::string m_sFailure;
    RareLine m_failureLine;
    RareLine m_longLine;
};

} // namespace VornRelay

#endif
