// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TcpTry.h"

#include <cerrno>

namespace VornNet {

DeliveryTry::Progress TcpTry::start(std::string_view bytes) {
    m_step = Step::sending;
    int nError = open(AF_INET, bytes);
    if (nError == EINPROGRESS)
        nError = 0;
    if (nError == 0)
        nError = watch(false);
    // On one host it is connected by now, although connect() could not say so.
    return nError == 0 ? send() : failed(nError);
}

DeliveryTry::Progress TcpTry::advance(std::uint32_t /*nEvents*/) {
    if (m_step == Step::ending)
        return awaitEnd();
    int nError = ECONNRESET;
    if (!isConnecting() && drain(nError) != Peer::open)
        return failed(nError);
    return send();
}

DeliveryTry::Progress TcpTry::send() {
    int nError = sendUpTo(size(), MSG_MORE);
    if (nError == 0 && isSent()) {
        m_step = Step::ending;
        nError = endSending();
    }
    return nError == 0 ? Progress() : failed(nError);
}

DeliveryTry::Progress TcpTry::awaitEnd() {
    int nError = 0;
    switch (drain(nError)) { // GCOVR_EXCL_BR_LINE: there is no way past all states
    case Peer::open:
        return {};
    case Peer::failed:
        return failed(nError);
    case Peer::ended:
        break;
    }
    return confirm();
}

/**
 * An end can come before the sink has had the bytes, and hides the reset that follows: only when nothing
 * failed and all has been acknowledged is it the end of one that took everything. Until then the next event
 * decides.
 */
DeliveryTry::Progress TcpTry::confirm() {
    int nFailure = 0;
    socklen_t length = sizeof nFailure;
    if (System::getsockopt(descriptor(), SOL_SOCKET, SO_ERROR, &nFailure, &length) == -1)
        nFailure = errno;
    int nUntaken = 0;
    if (nFailure == 0)
        nFailure = countUntaken(nUntaken);
    if (nFailure != 0)
        return failed(nFailure);
    if (nUntaken != 0)
        return {};
    if (hasHeard() && address().isOwnOf(descriptor()))
        return end({.kind = Progress::Kind::failed, .nCode = ECONNREFUSED});
    return end({.kind = Progress::Kind::delivered});
}

} // namespace VornNet
