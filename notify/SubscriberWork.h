// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SUBSCRIBERWORK_H
#define VORNNOTIFY_SUBSCRIBERWORK_H

#include "CallbackEndpoint.h"
#include "Deadline.h"
#include "HomeProcess.h"
#include "PositionFile.h"
#include "QuietThread.h"
#include "ServiceConnection.h"
#include "SubscriberRecord.h"
#include "TimedPoll.h"
#include "VornSubscriber.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

namespace VornNet {

/**
 * A subscriber's state machine. One thread at a time drives it, step by step, whenever its descriptor is
 * readable; that is its own thread, or whoever calls dispatch(). Both do the same.
 *
 * Handlers are called without a lock, and may stop or destroy the subscriber: whoever drives holds this
 * object until it returns.
 */
class SubscriberWork : public std::enable_shared_from_this<SubscriberWork> {
public:
    using Options = VornSubscriber::Options;

    /** @throws VornException for the position file, std::system_error, std::bad_alloc */
    SubscriberWork(const CallbackEndpoint& service, const VornString& sTopic,
                   const VornSubscriber::EventHandler& onEvent, const Options& options);

    /** Begins; with a thread of its own if the options say so. @throws std::system_error,
     * std::bad_alloc */
    void start();

    int handle() const { return m_options.bOwnThread ? -1 : m_poll.number(); }

    std::size_t dispatch();

    const SubscriberRecord& record() const { return m_record; }

    void setAddress(const CallbackEndpoint& service);
    /** @return whether a handler has called it, so that the thread that drives is still to come back. */
    bool stop();

    /**
     * As stop(); and a thread that is running in a handler goes on without an owner. In a child of a fork
     * everything is left as it is, for the thread, the poll and the lock on the file are the parent's.
     */
    void abandon();

private:
    using Clock = std::chrono::steady_clock;

    enum class Phase { pause, connecting, asking, answer, live };

    class Driving;

    void run();
    std::size_t drive(bool isWaiting);
    bool beginDriving();
    void endDriving(bool isOver);
    void cleanUp();

    void advance(std::uint32_t events);
    void checkTime();

    bool isInterrupted() const { return m_isStopped || m_isMoved; }

    void takeMove();

    void connect();
    void finishConnecting();
    void ask();

    void receive();
    void deal();
    bool dealWithLine(std::string_view bytes);
    bool dealWithAnswer(std::string_view bytes);
    bool dealWithPlace(std::string_view bytes);
    bool dealWithFrame(std::string_view bytes);
    bool tellGapBefore(std::uint64_t number);
    void dealWithEvent(std::string_view rest);
    void dealWithGap(std::string_view rest);
    void dealWithSign(std::string_view rest);
    void dealWithLast(std::string_view rest);
    void callForEvent(std::uint64_t number, std::string_view content);
    void tellGap(const VornPosition& next, std::uint64_t missed);

    void lose(const char* reason, int nCode);
    void misunderstand(const char* reason, int nCode);
    void refuse(const VornString& sReason);
    void leave(VornSubscriber::State state, const VornString& sReason, int nCode);
    void pauseFor(std::chrono::nanoseconds pause);
    void tell(VornSubscriber::State state, const VornString& sReason, int nCode);

    const HomeProcess m_home;
    std::shared_ptr<SubscriberWork> m_spSelf; // in a child of a fork: never destroyed
    const VornString m_sTopic;
    const VornSubscriber::EventHandler m_onEvent;
    const Options m_options;
    std::optional<PositionFile> m_file;
    SubscriberRecord m_record;
    TimedPoll m_poll;

    // For whoever drives.
    Phase m_phase = Phase::pause;
    ServiceConnection m_connection{m_poll};
    Clock::time_point m_due{}; // when the phase ends unless something happens
    std::chrono::milliseconds m_silence{0};
    std::chrono::milliseconds m_nextPause;
    bool m_hasMisunderstood = false; // the last subscription ended so, and may again
    bool m_wasConnected = false;
    std::minstd_rand m_random;
    VornPosition m_resume;        // behind what has been called for or told of as missed
    std::uint64_t m_nHistory = 0; // of this connection
    std::uint64_t m_nOldUpTo = 0; // events up to this one are old to this connection
    VornSubscriber::Event m_event;
    std::size_t m_nCalled = 0; // by this step

    std::atomic<bool> m_isStopped{false};
    std::atomic<bool> m_isMoved{false};

    std::mutex m_mutex; // guards all below
    std::condition_variable m_changed;
    bool m_isDriving = false;
    std::thread::id m_driver;
    bool m_isJoining = false;
    bool m_isJoined = false;
    CallbackEndpoint m_service;
    QuietThread m_thread;
};

} // namespace VornNet

#endif
