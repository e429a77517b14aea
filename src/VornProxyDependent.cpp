// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornProxyDependent.h"

#include "CallbackAddress.h"
#include "VornPipeConnection.h"
#include "VornSSLSocketConnection.h"
#include "VornSocketConnection.h"
#include "VornUDPSocketConnection.h"

#include <Probe.h>

namespace VornNet {

namespace {

void writeNotification(VornProxyDependent& proxy, long hDependent, VornConnection& connection,
                       const VornNotification& notification) {
    connection.transfer(hDependent);
    proxy.addContent(connection, notification);
}

} // namespace

VornProxyDependent::VornProxyDependent(const VornString& sRemoteName, long hDependent)
    : m_sRemoteName(sRemoteName), m_hDependent(hDependent) {}

VornProxyDependent::~VornProxyDependent() = default;

void VornProxyDependent::addContent(VornConnection& connection, const VornNotification& notification) {
    connection.transfer(static_cast<long>(notification.getId()));
}

void VornProxyDependent::remoteNotify(const VornNotification& notification) {
    const CallbackAddress address(m_sRemoteName);
    VORN_PROBE(notification__sending, m_sRemoteName.c_str(), m_hDependent);
    switch (address.kind) { // GCOVR_EXCL_BR_LINE: there is no way past all kinds
    case CallbackAddress::Kind::udp: {
        VornUDPSocketConnection connection(address.host, address.port, false);
        writeNotification(*this, m_hDependent, connection, notification);
        if (!connection.transmit()) // is logged, and nothing more: UDP promises no delivery
            return;
        break;
    }
    case CallbackAddress::Kind::pipe: {
        VornPipeConnection connection(address.host);
        writeNotification(*this, m_hDependent, connection, notification);
        break;
    }
    case CallbackAddress::Kind::tcp: {
        VornSocketConnection connection(address.host, address.port, true, false);
        writeNotification(*this, m_hDependent, connection, notification);
        break;
    }
    case CallbackAddress::Kind::ssl: {
        VornSSLSocketConnection connection(address.host, address.port, true);
        writeNotification(*this, m_hDependent, connection, notification); // GCOVR_EXCL_BR_LINE: always throws
        break;                                                            // GCOVR_EXCL_LINE: as above
    }
    case CallbackAddress::Kind::unknown:
        return;
    }
    VORN_PROBE(notification__sent, m_sRemoteName.c_str(), m_hDependent);
}

const VornString& VornProxyDependent::getRemoteName() const {
    return m_sRemoteName;
}

int VornProxyDependent::getDependentHandle() const {
    return static_cast<int>(m_hDependent);
}

} // namespace VornNet
