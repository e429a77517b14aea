// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNUDPSOCKETCONNECTION_H
#define VORNUDPSOCKETCONNECTION_H

#include "VornBufferConnection.h"

namespace VornNet {

/**
 * Sends one message as one UDP datagram over IPv4.
 *
 * The typed operations collect the message in memory. transmit() sends all of it, each time it is called.
 * Nothing is ever received: reading returns what was written. Broadcast is enabled. A host name that does not
 * resolve is taken for 0.0.0.0, an invalid address for 255.255.255.255.
 *
 * Thread-safety: none; one thread at a time. Several threads may transmit from different connections at once.
 * Blocking: looking up a host name; sending does not wait for the receiver.
 * Ownership: a socket lives within one transmit(). After a failure of setsockopt(2) or sendto(2) its
 * descriptor stays open until the process ends.
 * Signals: none raised.
 * Errors: transmit() returns false and logs at level 1; a message of more than 65507 bytes is such a failure.
 */
class VORNNET_API VornUDPSocketConnection : public VornBufferConnection {
public:
    /**
     * Notes where to send to; connects to nobody.
     * @param sRemoteName  host name or dotted IPv4 address; a text with a letter anywhere is a name
     * @param nPort        port in host byte order; its low 16 bits count
     * @param bIdentify    whether the resolver is asked for the name of a dotted address; the answer is not
     * used
     */
    VornUDPSocketConnection(const VornString& sRemoteName, int nPort, bool bIdentify);

    /** Frees the message. */
    ~VornUDPSocketConnection() override;

    using VornBufferConnection::transfer;

    /** Sends everything written so far as one datagram. @return whether it was sent, not whether it arrived.
     */
    virtual bool transmit();

protected:
    int m_nPort;      ///< port to send to
    bool m_bIdentify; ///< the resolver is asked for the name of an address

private:
    VornUDPSocketConnection() = delete;
    VornUDPSocketConnection(const VornUDPSocketConnection&) = delete;
    VornUDPSocketConnection& operator=(const VornUDPSocketConnection&) = delete;
};

} // namespace VornNet

#endif
