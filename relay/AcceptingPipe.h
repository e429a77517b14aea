// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_ACCEPTINGPIPE_H
#define VORNRELAY_ACCEPTINGPIPE_H

#include "AcceptingSocket.h"

#include <PipeListener.h>

#include <optional>
#include <string>

namespace VornRelay {

/**
 * A pipe that others connect to: opens its file, accepts, closes it again.
 *
 * Closed, it refuses with 111 (ECONNREFUSED) or 2 (ENOENT), as a service expects of a client that has gone.
 */
class AcceptingPipe {
public:
    AcceptingPipe(RelayLoop& loop, std::string sName, AcceptingSocket::AcceptHandler onAccept)
        : m_sName(std::move(sName)), m_socket(loop, std::move(onAccept)) {}

    ~AcceptingPipe();

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
    const std::string m_sName;
    std::optional<VornNet::PipeListener> m_listener;
    AcceptingSocket m_socket; // after the listener, whose socket it uses
};

} // namespace VornRelay

#endif
