// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServedConnection.h"

#include "VornPipeConnection.h"
#include "VornSocketConnection.h"

namespace VornNet {

ServedConnection::ServedConnection(const void* sink, VornConnection& connection)
    : m_watch(sink, cellOf(connection)) {}

void ServedConnection::endRead(const void* sink) {
    SocketCell::Watch::shutDownReading(sink);
}

void** ServedConnection::cellOf(VornConnection& connection) {
    auto* socket = dynamic_cast<VornSocketConnection*>(&connection);
    if (socket != nullptr)
        return &socket->m_pClient;
    auto* pipe = dynamic_cast<VornPipeConnection*>(&connection);
    if (pipe != nullptr)
        return &pipe->m_pipeHandle;
    return nullptr; // a datagram is in memory
}

} // namespace VornNet
