// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PortDelivery.h"

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <linux/sockios.h>

namespace VornRelay {

namespace {

using std::chrono::milliseconds;

constexpr unsigned int cMostResets = 200;
constexpr milliseconds cAcknowledgement{1};

} // namespace

PortDelivery::PortDelivery(RelayLoop& loop, PortOwners& owners, in_addr address, std::uint16_t nPublished,
                           std::string_view sExchange, milliseconds patience, DoneHandler onDone)
    : Delivery(loop, std::move(onDone)), m_owners(owners), m_address(address), m_nPublished(nPublished),
      m_sExchange(sExchange), m_patience(patience) {}

PortDelivery::~PortDelivery() {
    PortDelivery::close();
}

void PortDelivery::ready(std::uint32_t) {
    if (!m_socket.isOpen())
        return;
    if (m_step == Step::connecting)
        connected();
    else if (m_step == Step::sending ? !send() : !awaitEnd())
        wasReset();
}

void PortDelivery::close() {
    Delivery::close();
    if (!m_socket.isOpen())
        return;
    m_loop.unwatch(m_socket.number());
    m_socket.reset();
}

void PortDelivery::attempt() {
    const PortOwners::Place place = m_owners.find(m_address, m_nPublished);
    m_result.nMoves += place.bHasMoved ? 1 : 0;
    if (place.bHasEnded || awayFor() > m_patience) {
        m_owners.forget(m_nPublished);
        finish(Outcome::gone);
    } else if (place.nPort == 0) {
        repeat(true);
    } else {
        connectTo(place.nPort);
    }
}

void PortDelivery::connectTo(std::uint16_t nPort) {
    ++m_result.nTries;
    m_nPort = nPort;
    m_nSent = 0;
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_addr = m_address;
    place.sin_port = htons(nPort);
    m_socket = VornNet::OwnedDescriptor::opened(
        System::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    m_step = Step::connecting;
    m_loop.watch(m_socket.number(), EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, *this);
    if (System::connect(m_socket.number(), reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0)
        return;
    if (const int nError = errno; nError != EINPROGRESS)
        repeat(nError == ECONNREFUSED);
}

/** Whoever listens now has listened since before the connection was there. */
void PortDelivery::connected() try {
    int nError = 0;
    socklen_t nSize = sizeof nError;
    System::getsockopt(m_socket.number(), SOL_SOCKET, SO_ERROR, &nError, &nSize);
    if (nError != 0) {
        repeat(nError == ECONNREFUSED);
    } else if (!m_owners.isOwn(m_address, m_nPublished, m_nPort)) {
        repeat(true);
    } else {
        found();
        m_step = Step::sending;
        if (!send())
            wasReset();
    }

} catch (const std::system_error&) {

    repeat(false);
}

/**
 * The last of the content is held back until the end goes along with it. A sink that read it and closed
 * before the end came would keep its port busy, and move after having tried for a second to get it again.
 * @return whether the connection still stands
 */
bool PortDelivery::send() {
    while (m_nSent < m_sExchange.size()) {
        const ssize_t count = System::send(m_socket.number(), m_sExchange.data() + m_nSent,
                                           m_sExchange.size() - m_nSent, MSG_NOSIGNAL | MSG_MORE);
        if (count == -1)
            return errno == EAGAIN;
        m_nSent += static_cast<std::size_t>(count);
    }
    m_step = Step::ending;
    return System::shutdown(m_socket.number(), SHUT_WR) == 0 && awaitEnd();
}

/** The end counts when everything has been taken; before that, a reset may follow. */
bool PortDelivery::awaitEnd() {
    std::array<char, 256> ignored;
    ssize_t count = 0;
    do {
        count = System::recv(m_socket.number(), ignored.data(), ignored.size(), 0);
    } while (count > 0);
    if (count == -1)
        return errno == EAGAIN;
    int nUntaken = 0;
    int nError = 0;
    socklen_t nSize = sizeof nError;
    if (System::getsockopt(m_socket.number(), SOL_SOCKET, SO_ERROR, &nError, &nSize) == -1 || nError != 0 ||
        System::ioctl(m_socket.number(), SIOCOUTQ, &nUntaken) == -1)
        return false;
    if (nUntaken == 0) {
        finish(Outcome::delivered);
        return true;
    }
    after(cAcknowledgement, [this] { // no event tells that the last byte has been acknowledged
        if (!awaitEnd())
            wasReset();
    });
    return true;
}

void PortDelivery::wasReset() {
    if (++m_result.nResets < cMostResets)
        repeat(false);
    else
        finish(Outcome::unread);
}

} // namespace VornRelay
