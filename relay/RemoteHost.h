// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_REMOTEHOST_H
#define VORNRELAY_REMOTEHOST_H

#include "NotificationNumber.h"
#include "OutgoingQueue.h"
#include "RelayCounters.h"
#include "RelayLog.h"
#include "ServicePipe.h"

#include <cstdint>
#include <string>
#include <unordered_set>

namespace VornRelay {

/** @return the subject of what goes to a lease of another host. */
std::string subjectOfLease(const std::string& sHost, std::uint32_t nLease);

/** @return the subject of what goes to a TCP port of another host. */
std::string subjectOfPort(const std::string& sHost, std::uint16_t nPort);

/** @return a notification as it is stored; @p sId may be empty until the message is stamped. */
Engine::Message messageTo(const std::string& sSubject, const std::string& sSource, const std::string& sId,
                          std::string&& sExchange);

/**
 * The service's side of a relay, for one remote host: what services write to the pipe `relay-HOST` is
 * numbered and stored in that host's stream. The pipe's file stands for all sinks of the host; the first four
 * bytes of a notification, a callback's id elsewhere, say which lease is meant.
 */
class RemoteHost : private ServicePipe::Owner {
public:
    /** @param number counts this relay's notifications, whatever host they go to */
    RemoteHost(RelayLoop& loop, Engine& engine, const std::string& sSource, const std::string& sHost,
               std::size_t nWindow, NotificationNumber& number, RelayCounters& counters);

    const std::string& name() const { return m_sHost; }

    ServicePipe& pipe() { return m_pipe; }

    OutgoingQueue& queue() { return m_queue; }

    /** Says in the log why notifications are not stored, now and then. */
    void complain();

    /** Closes the pipe, so that services are refused, while more waits than @p nMost bytes, and opens it when
     * half of that is left. @throws std::system_error */
    void admit(std::size_t nMost);

    /** The host has told that a lease has ended: what comes for it is refused from now on. */
    void setGone(std::uint32_t nLease);

private:
    void accepted(std::string&& sExchange, std::uint16_t nPort, ServicePipe::DoneHandler onDone) override;

    void broken() override { ++m_counters.nBroken; }

    void tooLong() override;
    std::size_t mostContent() const override;
    void stamp(Engine::Message& message);

    const Engine& m_engine;
    const std::string m_sSource;
    const std::string m_sHost;
    NotificationNumber& m_number;
    RelayCounters& m_counters;
    std::unordered_set<std::uint32_t> m_gone;
    RareLine m_tooLongLine;
    RareLine m_failureLine;
    OutgoingQueue m_queue;
    ServicePipe m_pipe;
};

} // namespace VornRelay

#endif
