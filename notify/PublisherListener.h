// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PUBLISHERLISTENER_H
#define VORNNOTIFY_PUBLISHERLISTENER_H

#include "OwnedDescriptor.h"
#include "PipeListener.h"
#include "ServiceAddress.h"

#include <optional>

#include <sys/types.h>

namespace VornNet {

/** The listening socket of a publisher, which does not block, at a pipe or a port. */
class PublisherListener {
public:
    /**
     * Listens. A file that a dead server has left is replaced, a living one's is not.
     * @param group that a pipe's file is given to; none: the process's
     * @throws std::system_error
     */
    PublisherListener(const ServiceAddress& address, std::optional<gid_t> group);

    /** Closes, and removes the file. */
    ~PublisherListener();

    PublisherListener(const PublisherListener&) = delete;
    PublisherListener& operator=(const PublisherListener&) = delete;

    int number() const { return m_pipe ? m_pipe->descriptor() : m_socket.number(); }

    bool isPipe() const { return m_address.isPipe(); }

    /** @return where clients find it. @throws std::system_error */
    VornString text() const;

    /** @return a listener with a new file when that of the pipe has gone, and can be made. */
    std::optional<PipeListener> remake() const;

    /** Goes on with what remake() has made. */
    void replace(PipeListener pipe) { m_pipe.emplace(std::move(pipe)); }

    /** Closes the socket, and removes the file unless it is somebody else's by now. */
    void close();

private:
    void listenAtPort();

    ServiceAddress m_address;
    std::optional<gid_t> m_group;
    std::optional<PipeListener> m_pipe;
    OwnedDescriptor m_socket; // over TCP
};

} // namespace VornNet

#endif
