// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_ACCEPTINGPIPE_H
#define VORNRELAY_ACCEPTINGPIPE_H

#include "RelayLoop.h"

#include <OwnedDescriptor.h>
#include <PipeListener.h>

#include <functional>
#include <optional>
#include <string>

namespace VornRelay {

/**
 * A pipe that others connect to: opens its file, accepts, closes it again.
 *
 * Closed, it refuses with 111 (ECONNREFUSED) or 2 (ENOENT), as a service expects of a client that has gone.
 * When there is no descriptor left it stops accepting for a while.
 */
class AcceptingPipe : private RelayLoop::Handler {
public:
    using AcceptHandler = std::function<void(VornNet::OwnedDescriptor&& connection)>;

    AcceptingPipe(RelayLoop& loop, std::string sName, AcceptHandler onAccept)
        : m_loop(loop), m_sName(std::move(sName)), m_onAccept(std::move(onAccept)) {}

    ~AcceptingPipe() override;

    AcceptingPipe(const AcceptingPipe&) = delete;
    AcceptingPipe& operator=(const AcceptingPipe&) = delete;

    /** @throws std::system_error, 98 (EADDRINUSE) when somebody listens there */
    void open();

    /** Removes the file, and accepts those who came before: a plain sender among them has gone already, and
     * takes what it sent for delivered. */
    void close();

    bool isOpen() const { return m_listener.has_value(); }

    const std::string& name() const { return m_sName; }

private:
    void ready(std::uint32_t nEvents) override;
    bool acceptOne();
    void watch();
    void rest();

    RelayLoop& m_loop;
    const std::string m_sName;
    const AcceptHandler m_onAccept;
    std::optional<VornNet::PipeListener> m_listener;
    RelayLoop::Timer m_rest = 0;
};

} // namespace VornRelay

#endif
