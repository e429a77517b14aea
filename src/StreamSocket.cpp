// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "StreamSocket.h"

#include "SocketCell.h"

#include <SystemCalls.h>

#include <cerrno>

namespace VornNet {

long StreamSocket::send(const void* cell, const char* buf, long bufLen, long* error) {
    if (cell == nullptr) {
        *error = ENOTCONN;
        return 0;
    }
    long total = 0;
    while (total < bufLen) {
        const ssize_t count =
            System::send(SocketCell::descriptorOf(cell), buf + total, static_cast<size_t>(bufLen - total), 0);
        if (count == -1) {
            *error = errno;
            return -1;
        }
        total += count;
    }
    return total;
}

long StreamSocket::receive(const void* cell, char* bufPtr, long toRead, long* error, bool bWaitForAll) {
    if (cell == nullptr) {
        *error = ENOTCONN;
        return 0;
    }
    if (toRead < 1)
        return 0;
    const int fd = SocketCell::descriptorOf(cell);
    long total = 0;
    for (;;) {
        const ssize_t count = System::recv(fd, bufPtr + total, static_cast<size_t>(toRead - total), 0);
        if (count == -1) {
            *error = errno;
            if (*error != EMSGSIZE)
                return -1;
            // Kept: a transport that reports "message too long" is read again one byte earlier, and the error
            // stays even when that succeeds. The first step reads one byte before the caller's buffer; Linux
            // never reports this on a stream.
            --total;
        } else if (count == 0) {
            *error = ENOTCONN;
            return -1;
        } else {
            total += count;
            if (!bWaitForAll || total >= toRead)
                return total;
        }
    }
}

bool StreamSocket::peek(const void* cell, void* pBuffer, int& nSize, int& nErrorCode) {
    if (cell == nullptr) {
        nErrorCode = ENOTCONN;
        nSize = 0;
        return false;
    }
    // A negative size would turn into the longest possible one.
    const size_t size = nSize < 0 ? 0 : static_cast<size_t>(nSize);
    const ssize_t count = System::recv(SocketCell::descriptorOf(cell), pBuffer, size, MSG_PEEK);
    if (count == -1) {
        nErrorCode = errno;
        nSize = 0;
        return false;
    }
    nSize = static_cast<int>(count);
    return count != 0;
}

} // namespace VornNet
