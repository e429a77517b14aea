// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_LINKS_H
#define VORNTEST_LINKS_H

#include "Operations.h"
#include "Posix.h"

#include <VornConnection.h>

#include <memory>
#include <string>

namespace VornTest {

/** An established connection of each kind, whose other end is a plain socket of the same thread. */
class Link {
public:
    enum class Kind {
        buffer,
        fullBuffer, ///< whose next write needs a larger block
        datagram,
        pipeClient,
        acceptedPipe,
        tcpClient,
        acceptedTcp,
        ssl
    };

    static std::string nameOf(Kind kind);
    /** The class that has the raw operations. */
    static std::string classOf(Kind kind);
    /** A number in four bytes as it travels. */
    static std::string onWire(int number);

    /** @param waiting what the connection is to read */
    Link(Kind kind, const std::string& waiting);

    VornNet::VornConnection& connection() { return *m_connection; }

private:
    void makeBuffer(Kind kind, const std::string& waiting);
    void makeStream(Kind kind);

    UniqueFd m_peer;
    std::unique_ptr<VornNet::VornConnection> m_connection;
};

/** The run of an operation of an established connection, with bytes waiting to be read. */
template <typename Do>
std::function<void(Trial&)> onLink(Link::Kind kind, const std::string& waiting, Do operation) {
    return [=](Trial& trial) {
        Link link(kind, waiting);
        trial.attempt([&] { operation(link.connection()); });
    };
}

} // namespace VornTest

#endif
