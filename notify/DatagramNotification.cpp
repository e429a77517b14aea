// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DatagramNotification.h"

#include <SystemCalls.h>

#include <algorithm>
#include <new>

#include <sys/uio.h>

namespace VornNet {

namespace {

constexpr std::size_t cLongest = 65'535;

} // namespace

DatagramNotification::DatagramNotification(unsigned int nAccessRights, std::size_t nLimit)
    : IncomingNotification(nAccessRights, nLimit) {
    if (m_spContent->reserve(cLongest) == nullptr)
        throw std::bad_alloc();
}

bool DatagramNotification::receiveFrom(int fd, sockaddr_in& sender) {
    iovec parts[] = {{m_handle.data(), m_handle.size()}, {m_spContent->reserve(cLongest), cLongest}};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    const ssize_t nReceived = System::recvmsg(fd, &message, MSG_DONTWAIT);
    if (nReceived == -1)
        return false;
    m_nSize = static_cast<std::size_t>(nReceived);
    return true;
}

IncomingNotification::Progress DatagramNotification::read(std::size_t /*nRoom*/) {
    if (m_nSize < cHandleSize)
        return Progress::broken;
    if (m_nSize > m_nLimit)
        return Progress::tooLong;
    m_spContent->add(m_nSize - cHandleSize);
    m_spContent->trim();
    return Progress::complete;
}

} // namespace VornNet
