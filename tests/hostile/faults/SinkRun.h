// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SINKRUN_H
#define VORNTEST_SINKRUN_H

#include "Interpose.h"
#include "LogCapture.h"
#include "Posix.h"
#include "Scenarios.h"

#include <VornLibraryCallbackSink.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

#include <sys/types.h>

namespace VornTest {

/**
 * The life of one sink, with one delivery by a plain sender.
 *
 * What becomes of it is read from its log records, its event and its thread's state. A sink whose constructor
 * does not return, and one whose destructor does not, are helped out by interrupt().
 */
class SinkRun {
public:
    enum class Kind { pipe, socket, udp };

    static std::string nameOf(Kind kind);

    explicit SinkRun(Kind kind);
    ~SinkRun();

    /** Constructs, delivers and destroys on the stage. */
    Outcome deliverOne(const Stage& stage);

    /** Constructs, lets a silent client connect, and destroys on the stage. */
    Outcome endUnderSilentClient(const Stage& stage);

    /** Ends what goes on without end in the sink that lives now; called again and again. */
    static void interrupt(FaultControl& control);

private:
    class Sink;
    class Callback;

    enum class Phase { constructing, serving, ending, ended };

    Outcome stageLife(const Stage& stage, const std::function<void()>& middle);
    std::string live(const std::function<void()>& middle);
    void serveUntilDelivered();
    UniqueFd connectSilently();
    bool destroy();
    bool isBlockedInWait() const;
    bool awaitChance(int sent);
    void help(FaultControl& control);
    void helpConstructor(FaultControl& control, bool isHeld);
    Outcome outcomeOfThread(const std::string& text) const;

    const Kind m_kind;
    LogCapture m_log;
    alignas(std::max_align_t) std::byte m_memory[1024];
    Sink* m_sink;
    std::atomic<Phase> m_phase = Phase::constructing;
    std::atomic<bool> m_isGivenUp = false;
    std::atomic<pid_t> m_thread = 0;
    std::atomic<int> m_waits = 0;     ///< how often the sink's thread has begun to wait for a client
    std::atomic<int> m_reads = 0;     ///< how often it has begun to read
    std::atomic<int> m_delivered = 0; ///< at which wait it has delivered; 0 before
    bool m_isHelped = false;
    CallHook m_waitHook;
    CallHook m_readHook;
};

} // namespace VornTest

#endif
