// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PermanentReceiver.h"

namespace Bench {

namespace {

int listenAt(Road road, const Address& address) {
    constexpr int cBacklog = 128;
    const int listener = static_cast<int>(checked(::socket(familyOf(road), SOCK_STREAM, 0), "socket"));
    const int reuse = 1;
    checked(::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse), "setsockopt");
    if (road == Road::pipe)
        ::unlink(address.path());
    checked(::bind(listener, address.get(), address.length()), "bind");
    checked(::listen(listener, cBacklog), "listen");
    return listener;
}

} // namespace

PermanentReceiver::PermanentReceiver(Road road, int batch)
    : m_road(road), m_address(road, cPipeName, cPort), m_batch(batch), m_listener(listenAt(road, m_address)),
      m_thread([this] { run(); }) {}

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
