// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_STREAMSOCKET_H
#define VORNNET_STREAMSOCKET_H

namespace VornNet {

/**
 * What both stream transports do with a connected socket. It is given as its cell, see SocketCell; without
 * one each reports 107 (ENOTCONN) and does nothing.
 */
namespace StreamSocket {

/**
 * Sends all bytes, in as many calls as it takes.
 * @param error receives an errno value
 * @return the count; -1 on failure, 0 without a socket
 */
long send(const void* cell, const char* buf, long bufLen, long* error);

/**
 * Receives @p toRead bytes, or with @p bWaitForAll false what one successful call brings.
 * @param error receives an errno value, or 107 (ENOTCONN) when the peer has closed
 * @return the count, less one for each time the transport reported EMSGSIZE; -1 on failure, 0 without a
 * socket
 */
long receive(const void* cell, char* bufPtr, long toRead, long* error, bool bWaitForAll);

/** Looks at waiting bytes, see VornConnection::peekBytes(). */
bool peek(const void* cell, void* pBuffer, int& nSize, int& nErrorCode);

} // namespace StreamSocket

} // namespace VornNet

#endif
