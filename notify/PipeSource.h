// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PIPESOURCE_H
#define VORNNOTIFY_PIPESOURCE_H

#include "NotificationSource.h"
#include "PipeListener.h"
#include "SinkAddress.h"
#include "SinkSettings.h"

#include <vector>

namespace VornNet {

/**
 * A sink's pipe.
 *
 * When somebody has taken its file away it is opened again, under its name if that is free, else under
 * another one. Who had connected to the former one by then is served first.
 */
class PipeSource : public NotificationSource {
public:
    /** Opens the pipe. @param address is told when it changes. @throws std::system_error */
    PipeSource(const SinkSettings& settings, SinkAddress& address);

    /** Removes the file if it is the own one. */
    ~PipeSource() override;

    std::unique_ptr<IncomingNotification> prepare() const override;
    Arrival accept(IncomingNotification& next) override;

    int descriptor() const override { return m_listener.descriptor(); }

    bool hasBacklog() const override { return !m_former.empty(); }

    VornString address() const override;

    bool isToBeLookedAt() const override { return true; }

    void look() override;

private:
    void reopen(PipeListener::File file);

    const SinkSettings& m_settings;
    SinkAddress& m_address;
    PipeListener m_listener;
    std::vector<PipeListener> m_former; // whose queues have not been emptied yet
};

} // namespace VornNet

#endif
