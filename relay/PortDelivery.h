// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_PORTDELIVERY_H
#define VORNRELAY_PORTDELIVERY_H

#include "PortOwners.h"
#include "RelayLoop.h"

#include <OwnedDescriptor.h>

#include <cstdint>
#include <functional>
#include <string_view>

namespace VornRelay {

/**
 * Delivers one notification to a TCP sink of this host, wherever its process listens at the moment.
 *
 * A dispatcher would try the same port again, and in between another process may have taken it. So each try
 * begins with the question who listens there, which is asked once more when the connection is there; only
 * then anything is sent. A try ends as a dispatcher's does: the sink has read everything and closes, or it
 * resets, which leaves open whether the callback was called.
 *
 * Thread-safety: none, all on the loop's thread. Blocking: reads of /proc. Ownership: everything that is
 * passed must outlive it. Signals: none raised. Errors: told to the handler; want of descriptors or ports is
 * waited out, and does not count against the sink.
 */
class PortDelivery : private RelayLoop::Handler {
public:
    enum class Outcome {
        delivered,
        refused, ///< reset each time: no such callback, or one that leaves content unread
        gone     ///< the process has ended, or could not be found for too long
    };

    struct Result {
        Outcome outcome = Outcome::gone;
        unsigned int nTries = 0;
        unsigned int nResets = 0;
        unsigned int nMoves = 0; ///< of the port
    };

    using DoneHandler = std::function<void(const Result& result)>;

    /** Begins. @param onDone is called once, never before this returns */
    PortDelivery(RelayLoop& loop, PortOwners& owners, in_addr address, std::uint16_t nPublished,
                 std::string_view sExchange, std::chrono::milliseconds patience, DoneHandler onDone);
    ~PortDelivery() override;

    PortDelivery(const PortDelivery&) = delete;
    PortDelivery& operator=(const PortDelivery&) = delete;

    /** @return whether nobody listens. */
    bool isAway() const { return m_bAway; }

private:
    using Clock = RelayLoop::Clock;
    enum class Step { waiting, connecting, sending, ending };

    void ready(std::uint32_t nEvents) override;
    void attempt();
    void connectTo(std::uint16_t nPort);
    void connected();
    bool send();
    bool awaitEnd();
    void wasReset();
    void close();
    void repeat(bool bAway);
    void finish(Outcome outcome);

    RelayLoop& m_loop;
    PortOwners& m_owners;
    const in_addr m_address;
    const std::uint16_t m_nPublished;
    const std::string_view m_sExchange;
    const std::chrono::milliseconds m_patience;
    const DoneHandler m_onDone;
    Step m_step = Step::waiting;
    VornNet::OwnedDescriptor m_socket;
    std::uint16_t m_nPort = 0;
    std::size_t m_nSent = 0;
    Result m_result;
    bool m_bAway = false;
    Clock::time_point m_awaySince;
    std::chrono::microseconds m_pause{0};
    RelayLoop::Timer m_timer = 0;
};

} // namespace VornRelay

#endif
