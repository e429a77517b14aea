// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_DELIVERY_H
#define VORNRELAY_DELIVERY_H

#include "RelayLoop.h"

#include <chrono>
#include <functional>

namespace VornRelay {

/**
 * Delivers one notification to a sink of this host, and tries again until the sink has taken it.
 *
 * A relay delivers on its own thread, by the same tries as a dispatcher. A dispatcher would cost it two more
 * changes of threads for each notification, and would have begun the next one before the relay has noted that
 * this one was taken; that note is what keeps it from being delivered twice.
 *
 * The pause between two tries grows, more slowly while somebody listens. Want of descriptors or ports is
 * waited out, and does not count against the sink.
 *
 * Thread-safety: none, all on the loop's thread. Blocking: none, but for reads of /proc. Ownership:
 * everything that is passed must outlive it. Signals: none raised. Errors: told to the handler.
 */
class Delivery : public RelayLoop::Handler {
public:
    using Clock = RelayLoop::Clock;

    enum class Outcome {
        delivered, ///< the sink has read everything, and closed after its callback had returned
        unread,    ///< a sink took it, and closed without having read everything
        gone       ///< the process has ended, or could not be found for too long
    };

    struct Result {
        Outcome outcome = Outcome::gone;
        unsigned int nTries = 0;
        unsigned int nResets = 0;
        unsigned int nMoves = 0; ///< of a port
    };

    /** May destroy the delivery that calls it. */
    using DoneHandler = std::function<void(const Result& result)>;

    ~Delivery() override;

    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    /** Begins. The handler is called once, and perhaps before this returns. */
    void begin() { tryNow(); }

    /** Gives up, whatever has been sent; the handler is not called any more. */
    virtual void close();

    /** @return whether a callback may have been called for it, or may be called yet. */
    virtual bool mayHaveArrived() const = 0;

    /** @return whether nobody listens, and for more than the moment that a plain sink takes to open its pipe
     * or port anew. */
    bool isAway() const { return awayFor() > cSoonAway; }

    /** @return for how long nobody has listened; 0 when somebody does. */
    Clock::duration awayFor() const;

protected:
    Delivery(RelayLoop& loop, DoneHandler onDone);

    /** Begins one try. @throws std::system_error for want of descriptors */
    virtual void attempt() = 0;

    /** Closes what the try has used, and tries again after a pause. @param bAway nobody listens */
    void repeat(bool bAway);

    /** Somebody listens. */
    void found() { m_bAway = false; }

    /** Has @p task run after a time, instead of what was to run before. */
    void after(Clock::duration delay, RelayLoop::Task task);

    /** Ends. To be called last: the handler may destroy this object. */
    void finish(Outcome outcome);

    RelayLoop& m_loop;
    Result m_result;

private:
    static constexpr std::chrono::milliseconds cSoonAway{100};

    void tryNow();

    DoneHandler m_onDone;
    bool m_bAway = false;
    Clock::time_point m_awaySince;
    std::chrono::microseconds m_pause{0};
    RelayLoop::Timer m_timer = 0;
};

} // namespace VornRelay

#endif
