// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_TCPSOURCE_H
#define VORNNOTIFY_TCPSOURCE_H

#include "NotificationSource.h"
#include "PortListener.h"
#include "SinkSettings.h"

namespace VornNet {

/** A sink's listening TCP socket. */
class TcpSource : public NotificationSource {
public:
    /** Opens it. @throws std::system_error */
    explicit TcpSource(const SinkSettings& settings);

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
