// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornUDPSocketConnection.h"

#include "DatagramSend.h"

namespace VornNet {

VornUDPSocketConnection::VornUDPSocketConnection(const VornString& sRemoteName, int nPort, bool bIdentify)
    : m_nPort(nPort), m_bIdentify(bIdentify) {
    m_sRemoteName = sRemoteName;
}

VornUDPSocketConnection::~VornUDPSocketConnection() = default;

bool VornUDPSocketConnection::transmit() {
    DatagramSend datagram(m_sRemoteName, m_nPort, m_bIdentify);
    if (datagram.send(buf(), size()))
        return true;
    datagram.logFailure();
    return false;
}

} // namespace VornNet
