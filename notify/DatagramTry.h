// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_DATAGRAMTRY_H
#define VORNNOTIFY_DATAGRAMTRY_H

#include "CallbackEndpoint.h"
#include "DeliveryTry.h"
#include "OwnedDescriptor.h"

namespace VornNet {

/**
 * A try over UDP: one datagram, which ends at once. The socket is kept for the next one, and is connected: on
 * one host it learns that nobody listens, which is all that can be learned.
 */
class DatagramTry : public DeliveryTry {
public:
    explicit DatagramTry(const CallbackEndpoint& endpoint) : m_address(endpoint) {}

    Progress start(std::string_view bytes) override;

    void abandon() override { m_socket.reset(); }

    // Nobody asks for these: start() has ended the try.
    Progress advance(std::uint32_t /*nEvents*/) override { return {}; } // GCOVR_EXCL_LINE: see above

    bool mayHaveArrived() const override { return false; } // GCOVR_EXCL_LINE: see above

    bool isConnecting() const override { return false; } // GCOVR_EXCL_LINE: see above

    bool isOpen() const override { return m_socket.isOpen(); }

private:
    int open();

    CallbackEndpoint::Address m_address;
    OwnedDescriptor m_socket;
};

} // namespace VornNet

#endif
