// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PortListener.h"

#include "SystemError.h"

#include <HostEntry.h>
#include <SystemCalls.h>

#include <cerrno>

#include <arpa/inet.h>

namespace VornNet {

namespace {

/** The address of the official name of "localhost", as every sink finds it. */
in_addr findLocalhost() {
    const HostEntry local = HostEntry::byName("localhost");
    if (!local.isFound())
        throwSystemError(EADDRNOTAVAIL);
    const HostEntry official = HostEntry::byName(local.name());
    if (!official.isFound())
        throwSystemError(EADDRNOTAVAIL);
    return official.firstAddress();
}

} // namespace

PortListener PortListener::openTcp(std::optional<in_addr> address, in_port_t nPort) {
    PortListener listener(SOCK_STREAM);
    listener.set(SO_LINGER, linger{1, 0}); // accepted connections inherit it
    // What is left of a former sink's connections does not keep a port; a listener does.
    if (nPort != 0)
        listener.set(SO_REUSEADDR, 1);
    listener.bindTo(address, nPort);
    if (System::listen(listener.descriptor(), SOMAXCONN) == -1)
        throwSystemError(errno);
    return listener;
}

PortListener PortListener::openUdp(std::optional<in_addr> address, in_port_t nPort) {
    constexpr int cBufferSize = 4 * 1024 * 1024;
    PortListener listener(SOCK_DGRAM);
    listener.set(SO_RCVBUF, cBufferSize); // the system cuts it to what it allows
    listener.bindTo(address, nPort);
    return listener;
}

in_port_t PortListener::port() const {
    return ntohs(m_bound.sin_port);
}

PortListener::PortListener(int nType)
    : m_socket(OwnedDescriptor::opened(System::socket(AF_INET, nType | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))) {}

void PortListener::bindTo(std::optional<in_addr> address, in_port_t nPort) {
    m_bound.sin_family = AF_INET;
    m_bound.sin_addr = address.has_value() ? *address : findLocalhost();
    m_bound.sin_port = htons(nPort);
    if (System::bind(descriptor(), reinterpret_cast<const sockaddr*>(&m_bound), sizeof m_bound) == -1)
        throwSystemError(errno);
    socklen_t length = sizeof m_bound;
    if (System::getsockname(descriptor(), reinterpret_cast<sockaddr*>(&m_bound), &length) == -1)
        throwSystemError(errno);
}

template <typename Value>
void PortListener::set(int nOption, const Value& value) {
    if (System::setsockopt(descriptor(), SOL_SOCKET, nOption, &value, sizeof value) == -1)
        throwSystemError(errno);
}

} // namespace VornNet
