// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "IncomingNotification.h"

#include <SystemCalls.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <sys/socket.h>

namespace VornNet {

IncomingNotification::IncomingNotification(unsigned int nAccessRights, std::size_t nLimit)
    : m_nSize(0), m_nLimit(std::min(nLimit, ReceivedContent::cLargest)), m_handle(),
      m_spContent(new ReceivedContent(nAccessRights)) {}

int IncomingNotification::callbackId() const {
    // The handle is a long as proxies write it: the low 32 bits in network byte order, then four bytes that
    // nobody looks at.
    std::uint32_t nHandle = 0;
    std::memcpy(&nHandle, m_handle.data(), sizeof nHandle);
    return static_cast<int>(ntohl(nHandle));
}

IncomingNotification::Progress IncomingNotification::receive(std::size_t nBytes, std::size_t& nRoom) {
    while (nBytes > 0) {
        const bool isHandle = m_nSize < cHandleSize;
        const std::size_t nWanted = std::min(nBytes, isHandle ? cHandleSize - m_nSize : nRoom);
        char* place = nullptr;
        if (isHandle)
            place = m_handle.data() + m_nSize;
        else if (nWanted > 0)
            place = m_spContent->reserve(nWanted);
        if (place == nullptr)
            return Progress::heldBack;
        const ssize_t nTaken = System::recv(m_connection.number(), place, nWanted, MSG_DONTWAIT);
        if (nTaken == -1 && errno == EINTR)
            continue;
        if (nTaken <= 0)
            return nTaken == -1 && errno == EAGAIN ? Progress::open : Progress::broken;
        const auto nCount = static_cast<std::size_t>(nTaken);
        if (!isHandle) {
            m_spContent->add(nCount);
            nRoom -= nCount;
        }
        m_nSize += nCount;
        nBytes -= nCount;
    }
    return Progress::open;
}

bool IncomingNotification::add(const char* bytes, std::size_t nBytes) {
    const std::size_t nOfHandle = std::min(nBytes, cHandleSize - std::min(cHandleSize, m_nSize));
    const std::size_t nOfContent = nBytes - nOfHandle;
    if (nOfContent > 0) {
        char* place = m_spContent->reserve(nOfContent);
        if (place == nullptr)
            return false;
        std::memcpy(place, bytes + nOfHandle, nOfContent);
        m_spContent->add(nOfContent);
    }
    std::copy_n(bytes, nOfHandle,
                m_handle.begin() + static_cast<std::ptrdiff_t>(std::min(cHandleSize, m_nSize)));
    m_nSize += nBytes;
    return true;
}

long IncomingNotification::arrived() const {
    int nBytes = 0;
    return System::ioctl(m_connection.number(), FIONREAD, &nBytes) == -1 ? -1 : nBytes;
}

} // namespace VornNet
