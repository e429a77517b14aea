// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNEXCHANGE_H
#define VORNEXCHANGE_H

#include "VornNotifyExport.h"

#include <VornConnection.h>
#include <VornSmartPointer.h>
#include <VornString.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace VornNet {

/**
 * What an exchange over a VornConnection needs beyond the connection's own operations.
 *
 * Time limits without signals and threads are of two kinds. setTimeLimit() sets the socket's own
 * (SO_RCVTIMEO, SO_SNDTIMEO), which bound each single system call: a peer that is silent is left, but one
 * that sends a byte now and then stretches a long read without limit. limited() bounds all that is done
 * together, whatever the peer does. A typed operation whose limit has run out throws "VornConnection::get:
 * failed read" or "VornConnection::put: transfer failed." with 11 (EAGAIN), over limited() with 110
 * (ETIMEDOUT), and the only sound continuation is to disconnect.
 *
 * Numbers of 64 bits travel as 8 bytes, most significant first: as two ints, the upper half first. A double
 * travels as the 64 bits of its IEEE 754 form. A block travels as its length, an int, and its bytes: as a
 * text does, but a zero byte does not cut it.
 *
 * Thread-safety: as the connection.
 * Blocking: as the connection and its time limits.
 * Ownership: what open() returns owns its socket; what limited() returns uses another connection's.
 * Signals: as the connection: a typed operation that writes to a peer that is gone raises SIGPIPE. open()
 * does not, and neither does anything that is done with the result of limited().
 * Errors: VornException, as the connection's operations and as said below.
 */
class VORNNOTIFY_API VornExchange {
public:
    /**
     * Connects, and runs the service handshake, within a time limit, which stays set for the connection.
     * @param sAddress  "pipe:NAME" or "socket:ADDRESS:PORT", a dotted IPv4 address
     * @param sService  the service to ask for; empty for no handshake
     * @param timeLimit above 0
     * @return a connected connection; once disconnected it does not connect anew
     * @throws VornException 22 (EINVAL) "VornExchange::open: invalid address."; "VornExchange::open: failed."
     * with the error number, 110 (ETIMEDOUT) when the time ran out; "VornExchange::open: service refused."
     * with 111 (ECONNREFUSED)
     */
    static VornSmartPointer<VornConnection> open(const VornString& sAddress, const VornString& sService,
                                                 std::chrono::milliseconds timeLimit);

    /** @return the descriptor of a pipe or TCP connection that is connected, to be polled; else -1. */
    static int getHandle(VornConnection& connection);

    /**
     * Sets the time limit of each system call from now on; 0 takes it away.
     * @return false where there is no socket: not connected, or neither pipe nor TCP
     */
    static bool setTimeLimit(VornConnection& connection, std::chrono::milliseconds timeLimit);

    /**
     * A connection over the socket of another one: everything that is done with it, together, ends when the
     * time is over. Writing to a peer that is gone is 32 (EPIPE), and no signal.
     * @param connection a pipe or TCP connection that is connected; it outlives the result, and is not
     * disconnected meanwhile but by the result's disconnect()
     * @param timeLimit  above 0
     * @throws VornException 22 (EINVAL) "VornExchange::limited: no socket."
     */
    static VornSmartPointer<VornConnection> limited(VornConnection& connection,
                                                    std::chrono::milliseconds timeLimit);

    /**
     * The service's half of the handshake, first step: reads the name of the service that the client asks
     * for.
     * @param timeLimit for the whole line, above 0
     * @return the name, without its end of line
     * @throws VornException "VornExchange::receiveService: failed." with 110 (ETIMEDOUT), 107 (ENOTCONN) when
     * the client has closed, 71 (EPROTO) for a line of more than 255 bytes or not of printable ASCII, or what
     * the connection reports
     */
    static VornString receiveService(VornConnection& connection, std::chrono::milliseconds timeLimit);

    /** The second step: accepts ('+') or refuses ('-'). @throws VornException as a typed operation */
    static void answerService(VornConnection& connection, bool bAccept);

    /** Writes the error token and why. @throws VornException as a typed operation */
    static void transferError(VornConnection& connection, const VornString& sReason);

    /**
     * Reads the acknowledgement.
     * @param bReason whether the error token is followed by a text, as transferError() above writes it
     * @throws VornException with the reason, or "VornExchange::receiveACK: refused.", and 1 (EPERM) for the
     * error token; "VornExchange::receiveACK: no acknowledgement." with 71 (EPROTO) for anything else; or as
     * a typed operation
     */
    static void receiveACK(VornConnection& connection, bool bReason);

    /**
     * Reads until the peer closes.
     * @param nLimit most bytes
     * @return the bytes, zero bytes included
     * @throws VornException "VornExchange::readToEnd: too long." 90 (EMSGSIZE); "VornExchange::readToEnd:
     * failed." with the connection's error number
     */
    static VornString readToEnd(VornConnection& connection, std::size_t nLimit);

    /** Writes 8 bytes. @throws VornException as a typed operation; so do all below */
    static void transferInt64(VornConnection& connection, std::int64_t nValue);
    /** Reads 8 bytes. */
    static std::int64_t receiveInt64(VornConnection& connection);
    /** Writes 8 bytes. */
    static void transferUInt64(VornConnection& connection, std::uint64_t nValue);
    /** Reads 8 bytes. */
    static std::uint64_t receiveUInt64(VornConnection& connection);
    /** Writes 8 bytes. */
    static void transferDouble(VornConnection& connection, double dValue);
    /** Reads 8 bytes. */
    static double receiveDouble(VornConnection& connection);
    /**
     * Writes a block.
     * @throws VornException 90 (EMSGSIZE) "VornExchange::transferBlock: too long." above 2147483647 bytes,
     * with nothing written
     */
    static void transferBlock(VornConnection& connection, const void* pBytes, std::size_t nSize);
    /**
     * Reads a block.
     * @param nLimit most bytes
     * @throws VornException 90 (EMSGSIZE) "VornExchange::receiveBlock: too long." for a length that is
     * negative or above the limit, before memory is taken
     */
    static VornString receiveBlock(VornConnection& connection, std::size_t nLimit);

    VornExchange() = delete;
};

} // namespace VornNet

#endif
