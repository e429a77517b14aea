// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PermanentReceiver.h"

#include <sys/socket.h>
#include <unistd.h>

namespace Bench {

PermanentReceiver::PermanentReceiver(Road road, int batch)
    : m_road(road), m_address(road, cPipeName, cPort), m_batch(batch),
      m_listener(listenAt(m_address, SOMAXCONN)), m_thread([this] { run(); }) {}

PermanentReceiver::~PermanentReceiver() {
    ::shutdown(m_listener, SHUT_RDWR);
}

std::string PermanentReceiver::callbackAddress() const {
    return m_road == Road::pipe ? std::string("pipe:") + cPipeName
                                : "socket:127.0.0.1:" + std::to_string(cPort);
}

void PermanentReceiver::run() {
    int received = 0;
    for (;;) {
        const int client = ::accept(m_listener, nullptr, nullptr);
        if (client < 0)
            break;
        NotificationBytes bytes;
        receiveAll(client, bytes.handle, sizeof bytes.handle);
        receiveAll(client, bytes.id, sizeof bytes.id);
        ::close(client);
        if (++received % m_batch == 0)
            m_pacing.ready();
    }
    ::close(m_listener);
}

} // namespace Bench
