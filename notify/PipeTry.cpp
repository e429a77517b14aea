// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PipeTry.h"

#include <cerrno>

namespace VornNet {

namespace {

constexpr std::size_t cProbeSize = 7; // one byte less than the handle

/**
 * While the kernel frees a message it wakes the sender with one unit still counted, and no event follows when
 * that unit goes. A message that is really there counts some hundred.
 */
constexpr int cMostWhenTaken = 1;

} // namespace

DeliveryTry::Progress PipeTry::start(std::string_view bytes) {
    m_step = Step::probing;
    int nError = open(AF_UNIX, bytes);
    if (nError == 0)
        nError = sendUpTo(cProbeSize, 0);
    if (nError == 0 && sent() < cProbeSize)
        nError = EAGAIN;
    if (nError == 0)
        nError = watch(true);
    return nError == 0 ? Progress() : failed(nError);
}

DeliveryTry::Progress PipeTry::advance(std::uint32_t nEvents) {
    switch (m_step) { // GCOVR_EXCL_BR_LINE: there is no way past all steps
    case Step::probing:
        return probe(nEvents);
    case Step::sending:
        return goOnSending();
    case Step::ending:
        break;
    }
    return awaitEnd();
}

DeliveryTry::Progress PipeTry::probe(std::uint32_t nEvents) {
    int nUntaken = 0;
    int nError = countUntaken(nUntaken);
    if (nError != 0)
        return failed(nError);
    if (nUntaken > cMostWhenTaken) {
        nError = ECONNRESET;
        const bool bIsOpen = (nEvents & cEndEvents) == 0 || drain(nError) == Peer::open;
        return bIsOpen ? Progress() : failed(nError);
    }
    // Room is no news from here on: each piece that the sink reads would wake this thread in vain.
    nError = watch(false);
    if (nError != 0)
        return failed(nError);
    m_step = Step::sending;
    // A server that is closed throws the queue away, and the bytes are gone as well. But the kernel ends the
    // connection before it does that, so nothing more can be sent then, and it is tried again.
    return sendRest();
}

DeliveryTry::Progress PipeTry::goOnSending() {
    int nError = ECONNRESET;
    if (drain(nError) != Peer::open)
        return lost(nError);
    return sendRest();
}

DeliveryTry::Progress PipeTry::sendRest() {
    int nError = sendUpTo(size(), 0);
    if (nError == 0 && isSent()) {
        m_step = Step::ending;
        nError = endSending();
    }
    return nError == 0 ? Progress() : lost(nError);
}

DeliveryTry::Progress PipeTry::awaitEnd() {
    int nError = 0;
    const Peer peer = drain(nError);
    if (peer == Peer::open)
        return {};
    int nUntaken = 0;
    if (peer == Peer::ended)
        nError = countUntaken(nUntaken);
    if (nError != 0)
        return lost(nError);
    if (nUntaken <= cMostWhenTaken)
        return end({.kind = Progress::Kind::delivered});
    // The peer has ended its own sending side, and goes on reading.
    nError = watch(true);
    return nError == 0 ? Progress() : lost(nError);
}

DeliveryTry::Progress PipeTry::lost(int nCode) {
    Progress progress = failed(nCode);
    if (progress.bDoubtful)
        progress.kind = Progress::Kind::unread;
    return progress;
}

} // namespace VornNet
