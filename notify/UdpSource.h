// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_UDPSOURCE_H
#define VORNNOTIFY_UDPSOURCE_H

#include "NotificationSource.h"
#include "PortListener.h"
#include "SinkSettings.h"

namespace VornNet {

/** A sink's UDP socket: each datagram is a notification. */
class UdpSource : public NotificationSource {
public:
    /** Opens it. @throws std::system_error */
    explicit UdpSource(const SinkSettings& settings);

    std::unique_ptr<IncomingNotification> prepare() const override;
    Arrival accept(IncomingNotification& next) override;

    int descriptor() const override { return m_listener.descriptor(); }

    VornString address() const override;

private:
    const SinkSettings& m_settings;
    PortListener m_listener;
};

} // namespace VornNet

#endif
