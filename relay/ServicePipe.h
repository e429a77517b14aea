// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_SERVICEPIPE_H
#define VORNRELAY_SERVICEPIPE_H

#include "AcceptingPipe.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_set>

namespace VornRelay {

/**
 * Stands for the sinks of another host: the pipe at which services of this host notify them.
 *
 * Each connection is read to its end, but for one byte. What becomes of that byte is the answer: read before
 * the close, it says that the notification is stored; left there, the service sees a reset. So a relay that
 * is killed in between has confirmed nothing. A service that has closed already gets no answer, and its
 * connection is given back at once.
 *
 * Thread-safety: none, all on the loop's thread. Blocking: none. Ownership: loop and owner must outlive it.
 * Signals: none raised. Errors: std::system_error from open().
 */
class ServicePipe {
public:
    using DoneHandler = std::function<void(bool bStored)>;

    /** What the pipe asks and tells. */
    class Owner {
    public:
        virtual ~Owner() = default;

        /** A notification has been read; @p onDone is to be called once, at any time. @param nPort that it
         * was meant for, 0 when it came over the pipe */
        virtual void accepted(std::string&& sExchange, std::uint16_t nPort, DoneHandler onDone) = 0;

        /** One was thrown away: cut short by a reset, or too short to be one. */
        virtual void broken() = 0;

        /** One was longer than mostContent(), and refused. */
        virtual void tooLong() = 0;

        virtual std::size_t mostContent() const = 0;
    };

    ServicePipe(RelayLoop& loop, const std::string& sName, Owner& owner);
    ~ServicePipe();

    ServicePipe(const ServicePipe&) = delete;
    ServicePipe& operator=(const ServicePipe&) = delete;

    /** @throws std::system_error */
    void open() { m_pipe.open(); }

    void close() { m_pipe.close(); }

    bool isOpen() const { return m_pipe.isOpen(); }

    /** Reads a connection that was accepted elsewhere, and was meant for a TCP port of the host. */
    void take(VornNet::OwnedDescriptor&& connection, std::uint16_t nPort);

    /** @return connections whose end has not been seen. */
    std::size_t reading() const { return m_nReading; }

private:
    class Exchange;

    void end(const std::shared_ptr<Exchange>& spExchange);

    RelayLoop& m_loop;
    Owner& m_owner;
    AcceptingPipe m_pipe;
    std::unordered_set<std::shared_ptr<Exchange>> m_exchanges;
    std::size_t m_nReading = 0;
};

} // namespace VornRelay

#endif
