// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_RELAYHOSTS_H
#define VORNRELAY_RELAYHOSTS_H

#include "RedirectPort.h"
#include "RelayCounters.h"
#include "RelaySettings.h"
#include "RemoteHost.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace VornRelay {

/**
 * All hosts that services of this host may notify: those that the configuration lists, or whoever has a
 * stream, as the engine tells when it is asked.
 *
 * A host is there at once, its pipe from open() on. One that may not be notified any more goes when what was
 * accepted for it is stored.
 *
 * Thread-safety: none. Blocking: none. Ownership: loop, engine and counters must outlive it. Signals: none
 * raised. Errors: std::system_error from open(); later it is logged.
 */
class RelayHosts {
public:
    RelayHosts(RelayLoop& loop, Engine& engine, const RelaySettings& settings, RelayCounters& counters);

    /** Accepts services from now on. @throws std::system_error */
    void open();

    /** Takes what the configuration says now of `send-to` and `redirect-address`. */
    void change(const RelaySettings& settings);

    void setConnected(bool bConnected);

    /** Asks the engine which hosts there are, where all may be notified. */
    void ask();

    /** Something was told on that subject. */
    void told(const std::string& sSubject, const std::string& sText);

    /** Lets hosts go that are not wanted any more, and opens or closes pipes by what waits; to be called
     * often. */
    void look();

    /** Accepts no more; what was accepted is still stored. */
    void stop();

    /** @return whether all that was accepted is stored. */
    bool isIdle();

    /** @return how many bytes wait for the engine. */
    std::size_t heldBytes();

    /** @return how many messages were published more than once. */
    std::uint64_t repeated() const;

    nlohmann::json status() const;

private:
    void add(const std::string& sHost);
    void addNow(const std::string& sHost);
    bool isWanted(const std::string& sHost) const;
    void found(const std::vector<std::string>& hosts);
    void removeUnwanted();
    void admitServices();
    void redirected(VornNet::OwnedDescriptor&& connection, const sockaddr_in& meant);

    RelayLoop& m_loop;
    Engine& m_engine;
    RelaySettings m_settings; // what may change follows the configuration, the rest is as at the start
    RelayCounters& m_counters;
    NotificationNumber m_number;
    std::map<std::string, std::unique_ptr<RemoteHost>> m_hosts;
    std::optional<RedirectPort> m_redirectPort;
    std::set<std::string> m_found; // hosts that have a stream, where all may be notified
    std::uint64_t m_nRepeatedByRemoved = 0;
    bool m_bConnected = false;
    bool m_bStopped = false;
};

} // namespace VornRelay

#endif
