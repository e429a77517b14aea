// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkDelivery.h"

#include <cstdlib>

/**
 * A notification from the sender's first call until the sink waits for the next one: accept, read, dispatch,
 * close, re-create. The sender sends the next one only then.
 */
namespace Bench {

namespace {

constexpr const char* cPipeName = "bench-sink";
constexpr int cPort = 5900;

class Callback : public VornNet::VornNotificationCallback {
public:
    Callback(int nId, ClosingOrder& order) : VornNotificationCallback(nId), m_order(order) {}

protected:
    void doCallback(VornNet::VornSmartPointer<VornNet::VornConnection>& spConnection) override {
        benchmark::DoNotOptimize(spConnection->receiveLong());
        m_order.awaitSender();
    }

private:
    ClosingOrder& m_order;
};

const char* kindOf(Road road) {
    return road == Road::tcp ? "socket" : nameOf(road);
}

} // namespace

PosixSink::PosixSink(Road road)
    : m_road(road), m_server(road, cPipeName, cPort), m_isEnding(false), m_thread([this] { run(); }) {
    m_pacing.awaitReady();
}

PosixSink::~PosixSink() {
    m_isEnding = true;
    sendNotification(m_road, m_server.address());
    m_order.senderHasClosed();
}

Clock::time_point PosixSink::operate() {
    sendNotification(m_road, m_server.address());
    m_order.senderHasClosed();
    return m_pacing.awaitReady();
}

void PosixSink::run() {
    while (!m_isEnding) {
        m_server.open();
        m_pacing.ready();
        NotificationBytes bytes;
        if (m_road == Road::udp) {
            m_server.receiveDatagram(&bytes, sizeof bytes);
            m_order.awaitSender();
            m_server.close();
            continue;
        }
        const int client = m_server.acceptClient();
        receiveAll(client, bytes.handle, sizeof bytes.handle);
        receiveAll(client, bytes.id, sizeof bytes.id);
        m_order.awaitSender();
        m_server.close();
        ::close(client);
    }
}

VornnetSink::VornnetSink(Road road, int callbacks)
    : m_watch(road, m_pacing), m_kind(::setenv("QUORAX_CALLB_CONN_TYPE", kindOf(road), 1)), m_sink("bench"),
      m_notification(42) {
    m_pacing.awaitReady();
    for (int i = 0; i < callbacks; ++i)
        m_sink.getCallbackContainer().add(new Callback(m_sink.getCallbackContainer().getNewId(), m_order));
}

void VornnetSink::prepare() {
    // A TCP sink moves to the next port when it was the first to close a connection.
    const VornNet::VornString address = m_sink.getCallbackAddress();
    if (m_proxy == nullptr || m_proxy->getRemoteName() != address)
        m_proxy = std::make_unique<VornNet::VornProxyDependent>(address, 0);
}

Clock::time_point VornnetSink::operate() {
    m_proxy->remoteNotify(m_notification);
    m_order.senderHasClosed();
    return m_pacing.awaitReady();
}

void addSinkDelivery() {
    for (const Road road : {Road::pipe, Road::tcp, Road::udp}) {
        const std::string workload = std::string("sink-delivery-") + nameOf(road);
        addContender<PosixSink>(workload, "limit", 1, road);
        addContender<VornnetSink>(workload, "vornnet", 1, road, 1);
    }
}

} // namespace Bench
