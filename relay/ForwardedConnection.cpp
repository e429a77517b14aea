// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ForwardedConnection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <sys/socket.h>

namespace VornRelay {

namespace {

using VornNet::CallbackEndpoint;

constexpr std::size_t cMostBytes = 65'536; // in a piece

std::string textOf(int nError) {
    return std::generic_category().message(nError);
}

/** @return what another host says as it may stand in a log. */
std::string printable(std::string_view sText) {
    constexpr std::size_t cLongest = 200;
    std::string sPrintable(sText.substr(0, cLongest));
    std::replace_if(
        sPrintable.begin(), sPrintable.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return sPrintable;
}

/** @return the error that the kernel keeps for a socket, and forgets by this. */
int errorOf(int fd) {
    int nError = 0;
    socklen_t nSize = sizeof nError;
    return System::getsockopt(fd, SOL_SOCKET, SO_ERROR, &nError, &nSize) == -1 ? errno : nError;
}

} // namespace

ForwardedConnection::ForwardedConnection(RelayLoop& loop, Owner& owner, ForwardSubject subject,
                                         VornNet::OwnedDescriptor&& socket)
    : m_loop(loop), m_owner(owner), m_subject(std::move(subject)), m_socket(std::move(socket)),
      m_lastHeard(RelayLoop::Clock::now()) {}

ForwardedConnection::ForwardedConnection(RelayLoop& loop, Owner& owner, ForwardSubject subject,
                                         const CallbackEndpoint& service)
    : m_loop(loop), m_owner(owner), m_subject(std::move(subject)), m_service(service), m_bConnecting(true),
      m_lastTold(RelayLoop::Clock::now()), m_lastHeard(m_lastTold) {}

void ForwardedConnection::begin() try {
    if (m_bConnecting) {
        connect();
    } else {
        watch();
        m_bOpening = true;
        tell(0);
    }

} catch (const std::system_error& error) {

    reset(error.what());
}

void ForwardedConnection::take(const ForwardPiece& piece) {
    m_lastHeard = RelayLoop::Clock::now();
    m_bOpening = false;
    if (isTold())
        return; // the other end may have gone already
    if ((piece.nFlags & ForwardPiece::resets) != 0) {
        m_sLost = "reset by " + m_subject.sTo + ": " + printable(piece.sBytes);
        m_bEnded = true;
        work(); // what came before goes to the peer first
    } else if (piece.nPosition != m_nReceived) {
        reset("a piece is missing");
    } else if (piece.nPosition + piece.sBytes.size() > m_nGranted) {
        reset("more than was granted");
    } else {
        m_nReceived += piece.sBytes.size();
        m_sWaiting += piece.sBytes;
        m_bPeerEnded = m_bPeerEnded || (piece.nFlags & ForwardPiece::ends) != 0;
        // A limit beyond the window is none that this end would have given.
        m_nMayTell = std::max(m_nMayTell, std::min<std::uint64_t>(piece.nLimit, m_nTold + window));
        work();
    }
}

void ForwardedConnection::look(RelayLoop::Clock::time_point now) try {
    if (isTold())
        return;
    if (now - m_lastHeard > longestSilence) {
        reset("nothing is heard from " + m_subject.sTo);
        return;
    }
    if (m_bOpening || now - m_lastTold >= keepAlive)
        tell(0);
    if (m_bConnecting && !m_socket.isOpen())
        connect();

} catch (const std::system_error& error) {

    reset(error.what());
}

void ForwardedConnection::engineLost() {
    if (!isTold())
        abort("the engine is lost");
}

void ForwardedConnection::reset(const std::string& sWhy) {
    if (!isTold())
        tell(ForwardPiece::resets, sWhy);
    abort(sWhy);
}

void ForwardedConnection::close() {
    if (m_socket.isOpen())
        m_loop.unwatch(m_socket.number());
    m_socket.reset();
}

void ForwardedConnection::ready(std::uint32_t nEvents) {
    if (!m_socket.isOpen())
        return;
    m_bHungUp = m_bHungUp || (nEvents & (EPOLLRDHUP | EPOLLHUP)) != 0;
    if (!m_bConnecting)
        work();
    else if (const int nError = errorOf(m_socket.number()); nError != 0)
        reset(textOf(nError));
    else if ((nEvents & EPOLLOUT) != 0)
        connected();
}

/** While the queue of a pipe is full, it is tried again at each look(). */
void ForwardedConnection::connect() {
    const CallbackEndpoint::Address address(*m_service);
    m_socket = VornNet::OwnedDescriptor::opened(
        System::socket(address.get()->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int nError = System::connect(m_socket.number(), address.get(), address.length()) == -1 ? errno : 0;
    if (nError == EAGAIN) {
        m_socket.reset();
    } else if (nError == 0 || nError == EINPROGRESS) {
        watch();
        if (nError == 0)
            connected();
    } else {
        reset(textOf(nError));
    }
}

void ForwardedConnection::connected() {
    if (CallbackEndpoint::Address(*m_service).isOwnOf(m_socket.number())) {
        reset(textOf(ECONNREFUSED));
        return;
    }
    m_bConnecting = false;
    tell(0);
    work();
}

void ForwardedConnection::watch() {
    lingerOnClose(true);
    m_loop.watch(m_socket.number(), EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, *this);
}

/** Does what can be done now; each step may end it. */
void ForwardedConnection::work() {
    if (m_socket.isOpen() && !m_bConnecting)
        write();
    if (m_socket.isOpen() && !m_bConnecting)
        read();
    if (m_bOver)
        return;
    if (m_bEnded && m_bShutDown)
        finish();
    else if (!m_sLost.empty() && (m_sWaiting.empty() || m_bConnecting))
        abort(m_sLost);
    else if (!isTold() && !m_bPeerEnded && !m_bConnecting && limit() >= m_nGranted + window / 4)
        tell(0);
}

void ForwardedConnection::write() {
    while (!m_sWaiting.empty()) {
        const ssize_t count =
            System::send(m_socket.number(), m_sWaiting.data(), m_sWaiting.size(), MSG_NOSIGNAL);
        if (count == -1) {
            const int nError = errno;
            if (nError == EINTR)
                continue;
            if (nError != EAGAIN)
                reset(textOf(nError));
            return;
        }
        m_sWaiting.erase(0, static_cast<std::size_t>(count));
    }
    if (m_bPeerEnded && !std::exchange(m_bShutDown, true))
        System::shutdown(m_socket.number(), SHUT_WR); // if the peer has reset it, reading will tell
}

void ForwardedConnection::read() {
    while (m_socket.isOpen() && !m_bEnded && readOnce()) {
    }
}

/** @return whether there may be more. */
bool ForwardedConnection::readOnce() {
    std::array<char, cMostBytes + 1> bytes;
    const std::size_t nLeft = m_bLeft ? 1 : 0;
    const std::size_t nMost = std::min<std::size_t>({m_nMayTell - m_nTold, m_owner.mostBytes(), cMostBytes});
    // Without room it is only seen whether this is the end.
    const ssize_t count =
        System::recv(m_socket.number(), bytes.data(), std::max<std::size_t>(nMost, 1) + nLeft, MSG_PEEK);
    if (count == -1) {
        const int nError = errno;
        if (nError != EAGAIN && nError != EINTR)
            reset(textOf(nError));
        return nError == EINTR;
    }
    if (static_cast<std::size_t>(count) < nLeft) {
        reset(textOf(ECONNRESET)); // which has thrown away even what was left there
        return false;
    }
    const std::size_t nNew = static_cast<std::size_t>(count) - nLeft;
    if (nNew == 0) {
        if (isAtEnd())
            tell(0);
        return false;
    }
    if (nMost == 0)
        return false;
    takeOut(static_cast<std::size_t>(count) - 1);
    m_bLeft = true;
    tell(0, {bytes.data() + nLeft, nNew});
    return true;
}

/** Takes bytes out that have been seen. */
void ForwardedConnection::takeOut(std::size_t nBytes) {
    std::array<char, cMostBytes> bytes;
    while (nBytes > 0) {
        const ssize_t count = System::recv(m_socket.number(), bytes.data(), nBytes, 0);
        if (count == 0 || (count == -1 && errno != EINTR))
            return; // reset meanwhile, as the next look at it will find
        nBytes -= static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

/** Nothing is in the socket that has not been told. @return whether nothing will come */
bool ForwardedConnection::isAtEnd() {
    if (m_bLeft && !m_bHungUp)
        return false;
    if (const int nError = errorOf(m_socket.number()); nError != 0) {
        reset(textOf(nError));
        return false;
    }
    m_bEnded = true;
    return true;
}

void ForwardedConnection::tell(std::uint8_t nFlags, std::string_view sBytes) {
    if (m_bEnded)
        nFlags |= ForwardPiece::ends;
    if (m_bOpening) // until it is heard: the other relay may just be connecting to the engine
        nFlags |= ForwardPiece::opens;
    const bool bIsReset = (nFlags & ForwardPiece::resets) != 0;
    const ForwardPiece piece{nFlags, m_nTold, limit(), sBytes};
    m_nTold += bIsReset ? 0 : sBytes.size();
    m_nGranted = piece.nLimit;
    m_lastTold = RelayLoop::Clock::now();
    m_owner.tell(m_subject, piece);
}

void ForwardedConnection::finish() {
    if (m_bLeft)
        takeOut(1);
    lingerOnClose(false);
    abort("");
}

void ForwardedConnection::abort(const std::string& sWhy) {
    close();
    if (!std::exchange(m_bOver, true))
        m_owner.ended(*this, sWhy);
}

/** A TCP socket that is closed early is reset, also when the relay is killed. */
void ForwardedConnection::lingerOnClose(bool bReset) const {
    const linger option{bReset ? 1 : 0, 0};
    System::setsockopt(m_socket.number(), SOL_SOCKET, SO_LINGER, &option, sizeof option);
}

} // namespace VornRelay
