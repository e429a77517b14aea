// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_STREAMSOCKET_H
#define VORNNET_STREAMSOCKET_H

namespace VornNet {

/** The reads that both stream transports share, on a connected socket. */
namespace StreamSocket {

/**
 * Receives @p toRead bytes, or with @p bWaitForAll false what one successful call brings.
 * @param error receives an errno value, or 107 (ENOTCONN) when the peer has closed
 * @return the count, less one for each time the transport reported EMSGSIZE; -1 on failure
 */
long receive(int fd, char* bufPtr, long toRead, long* error, bool bWaitForAll);

/** Looks at waiting bytes, see VornConnection::peekBytes(). */
bool peek(int fd, void* pBuffer, int& nSize, int& nErrorCode);

} // namespace StreamSocket

} // namespace VornNet

#endif
