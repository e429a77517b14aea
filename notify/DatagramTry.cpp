// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DatagramTry.h"

#include <cerrno>

namespace VornNet {

DeliveryTry::Progress DatagramTry::start(std::string_view bytes) {
    int nError = m_socket.isOpen() ? 0 : open();
    if (nError == 0 && System::send(m_socket.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == -1)
        nError = errno;
    if (nError != 0)
        return {.kind = Progress::Kind::failed, .nCode = nError};
    // The answer of this host's own kernel is there when send() returns.
    socklen_t length = sizeof nError;
    System::getsockopt(m_socket.number(), SOL_SOCKET, SO_ERROR, &nError, &length);
    if (nError == ECONNREFUSED)
        return {.kind = Progress::Kind::failed, .nCode = nError};
    return {.kind = Progress::Kind::sent};
}

int DatagramTry::open() {
    m_socket.reset(System::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_socket.isOpen())
        return errno;
    if (System::connect(m_socket.number(), m_address.get(), m_address.length()) == 0)
        return 0;
    const int nError = errno;
    m_socket.reset();
    return nError;
}

} // namespace VornNet
