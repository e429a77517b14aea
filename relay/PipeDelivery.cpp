// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PipeDelivery.h"

#include "ControlPipe.h"

#include <PipeListener.h>

#include <cerrno>
#include <utility>

namespace VornRelay {

namespace {

using Progress = VornNet::DeliveryTry::Progress;

constexpr std::chrono::milliseconds cTimeToEnd{100}; // within which a killed process has closed its sockets

/** @return whether a try has failed since nobody listens. */
bool isAbsence(const Progress& progress) {
    switch (progress.nCode) {
    case EAGAIN: // its queue is full
    case EMFILE: // these are of this process
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
        return false;
    default:
        return !progress.bIsAlive;
    }
}

} // namespace

PipeDelivery::PipeDelivery(RelayLoop& loop, const std::string& sAddress, int nHandle,
                           std::string_view sContent, DoneHandler onDone)
    : Delivery(loop, std::move(onDone)),
      m_endpoint(VornNet::CallbackEndpoint::parse(sAddress.c_str()).value()),
      m_try(m_endpoint, loop.poll(), static_cast<RelayLoop::Handler*>(this)) {
    putLong(m_sBytes, nHandle);
    m_sBytes += sContent;
}

PipeDelivery::~PipeDelivery() {
    m_try.abandon();
}

void PipeDelivery::ready(std::uint32_t nEvents) {
    if (m_try.isOpen())
        apply(m_try.advance(nEvents));
}

void PipeDelivery::close() {
    Delivery::close();
    m_try.abandon();
}

void PipeDelivery::attempt() {
    m_bJudging = false;
    ++m_result.nTries;
    apply(m_try.start(m_sBytes));
}

void PipeDelivery::apply(const Progress& progress) {
    switch (progress.kind) {
    case Progress::Kind::waiting:
        found();
        break;
    case Progress::Kind::failed:
        repeat(isAbsence(progress));
        break;
    case Progress::Kind::unread:
        ++m_result.nResets;
        m_bJudging = true;
        after(cTimeToEnd, [this] { judge(); });
        break;
    default:
        finish(Outcome::delivered);
    }
}

void PipeDelivery::judge() {
    if (VornNet::PipeListener::isAlive(m_endpoint.host())) {
        finish(Outcome::unread);
    } else {
        m_bJudging = false;
        repeat(true);
    }
}

} // namespace VornRelay
