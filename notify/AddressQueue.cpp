// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AddressQueue.h"

#include "DatagramTry.h"
#include "PipeTry.h"
#include "TcpTry.h"

namespace VornNet {

AddressQueue::AddressQueue(const CallbackEndpoint& endpoint, EventPoll& poll)
    : Timer(Owner::queue), m_endpoint(endpoint) {
    switch (endpoint.kind()) { // GCOVR_EXCL_BR_LINE: there is no way past all kinds
    case CallbackEndpoint::Kind::pipe:
        spTry = std::make_unique<PipeTry>(endpoint, poll, this);
        break;
    case CallbackEndpoint::Kind::tcp:
        spTry = std::make_unique<TcpTry>(endpoint, poll, this);
        break;
    case CallbackEndpoint::Kind::udp:
        spTry = std::make_unique<DatagramTry>(endpoint);
        break;
    }
}

} // namespace VornNet
