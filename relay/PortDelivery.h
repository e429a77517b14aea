// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_PORTDELIVERY_H
#define VORNRELAY_PORTDELIVERY_H

#include "Delivery.h"
#include "PortOwners.h"

#include <OwnedDescriptor.h>

#include <cstdint>
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
 * Blocking: reads of /proc.
 */
class PortDelivery : public Delivery {
public:
    /** @param sExchange handle and content */
    PortDelivery(RelayLoop& loop, PortOwners& owners, in_addr address, std::uint16_t nPublished,
                 std::string_view sExchange, std::chrono::milliseconds patience, DoneHandler onDone);
    ~PortDelivery() override;

    void ready(std::uint32_t nEvents) override;
    void close() override;

    bool mayHaveArrived() const override { return m_socket.isOpen() && m_step != Step::connecting; }

private:
    enum class Step { connecting, sending, ending };

    void attempt() override;
    void connectTo(std::uint16_t nPort);
    void connected();
    bool send();
    bool awaitEnd();
    void wasReset();

    PortOwners& m_owners;
    const in_addr m_address;
    const std::uint16_t m_nPublished;
    const std::string_view m_sExchange;
    const std::chrono::milliseconds m_patience;
    Step m_step = Step::connecting;
    VornNet::OwnedDescriptor m_socket;
    std::uint16_t m_nPort = 0;
    std::size_t m_nSent = 0;
};

} // namespace VornRelay

#endif
