// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PublisherListener.h"

#include "DottedAddress.h"
#include "SystemError.h"

#include <cerrno>
#include <string>
#include <system_error>

#include <netinet/in.h>

namespace VornNet {

PublisherListener::PublisherListener(const ServiceAddress& address, std::optional<gid_t> group)
    : m_address(address), m_group(group) {
    if (isPipe())
        m_pipe.emplace(PipeListener::openNamed(m_address.pipe(), m_group));
    else
        listenAtPort();
}

PublisherListener::~PublisherListener() {
    close();
}

VornString PublisherListener::text() const {
    if (isPipe())
        return "pipe:" + m_address.pipe();
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (System::getsockname(m_socket.number(), reinterpret_cast<sockaddr*>(&address), &length) == -1)
        throwSystemError(errno);
    // All addresses together are none to connect to; this one is among them.
    if (address.sin_addr.s_addr == htonl(INADDR_ANY))
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return "socket:" + dottedAddress(address.sin_addr) + ":" + std::to_string(ntohs(address.sin_port));
}

std::optional<PipeListener> PublisherListener::remake() const {
    if (m_pipe->look() != PipeListener::File::gone)
        return std::nullopt;
    try {
        return PipeListener::openFree(m_address.pipe(), m_group);
    } catch (const std::system_error&) {
        return std::nullopt; // it is tried again
    }
}

void PublisherListener::close() {
    // The file goes first: nobody is to find one at which nobody listens.
    if (m_pipe)
        m_pipe->removeFile();
    m_pipe.reset();
    m_socket.reset();
}

void PublisherListener::listenAtPort() {
    m_socket =
        OwnedDescriptor::opened(System::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = m_address.host();
    address.sin_port = htons(m_address.port());
    // A service that is started again finds its port taken by connections that are long over, without this.
    if (System::setsockopt(number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1 ||
        System::bind(number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        System::listen(number(), SOMAXCONN) == -1)
        throwSystemError(errno);
}

} // namespace VornNet
