// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_RELAYSTAGE_H
#define VORNTEST_RELAYSTAGE_H

#include "Process.h"

#include <NatsAdministration.h>
#include <VornString.h>

#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace VornTest {

/** What a callback has seen, compared with the numbers 1 to a count. */
struct History {
    std::size_t nSeen = 0;
    std::size_t nLost = 0;
    std::size_t nDuplicated = 0;
    std::size_t nOutOfOrder = 0; ///< lower than one before, and not seen before

    bool operator==(const History&) const = default;
};

void PrintTo(const History& history, std::ostream* out);

/** How the engine of a stage is set up. */
struct EngineSetup {
    bool bFixedConsumer = false; ///< the administrator creates the consumers of host `b`
    int nServers = 1;            ///< three are a cluster, and each of them has all streams
    std::string sMore{};         ///< lines for the configuration of each server
};

/**
 * Hosts `a` and `b` with their relays, and an engine between them: the system's own nats-server, or the one
 * that VORNTEST_NATS_SERVER names, with TLS, a certificate for each host, and the permissions that `hosts
 * add` prints. Each host has a pipe directory of its own; both share the network of the sandbox.
 */
class RelayStage {
public:
    /** Where TCP sinks of host `b` listen once the network of host `a` is separate. */
    static constexpr const char* cSinkAddress = "100.64.7.2";

    /** Creates the certificates and starts the engine. */
    explicit RelayStage(EngineSetup setup = {});

    /** @return what the engine's program says of its version, such as "2.9.10". */
    static std::string engineVersion();

    /** @return why a cluster of this version cannot be tried; empty when it can. */
    static std::string faultOfClusters();

    /** Gives a host a network of its own, where the engine is called "engine". Its relay must not run yet.
     * @param delay what the network adds to each way */
    void separateNetwork(const std::string& sHost,
                         std::chrono::milliseconds delay = std::chrono::milliseconds(0));

    /** Runs the engine's program. */
    static ChildProcess runEngine(const std::vector<std::string>& arguments);

    void startEngine(int nServer = 0);
    void killEngine(int nServer = 0);

    /** Has a server hand over what it leads, and awaits its end. */
    void retireEngine(int nServer);

    /** Awaits that all servers of a cluster have the stream of host `b` as it is. */
    void awaitEngines() const;

    /** @return what the engine tells of the stream of host `b`, and of its consumer. */
    std::string state() const;

    /** @return the server that leads the stream of host `b`. */
    int leader() const;

    /** Has the engine pause. Returns when all its threads stand still, so that it answers nothing more. */
    void pauseEngine();

    void resumeEngine() { m_engines.at(0).kill(SIGCONT); }

    /** Takes a host off the network for a time; it must have one of its own. */
    void cutNetwork(const std::string& sHost, std::chrono::milliseconds time);

    /** Starts a host's relay. @param sMore lines for its configuration @param environment for its process */
    void startRelay(const std::string& sHost, const std::string& sMore = {},
                    const std::vector<std::string>& environment = {});

    /** Writes a host's configuration. @param sMore lines that come last, and hold */
    void configure(const std::string& sHost, const std::string& sMore) const;

    /** Gives a relay another configuration, and has it read. @param sMore as above */
    void reloadRelay(const std::string& sHost, const std::string& sMore);

    /** Awaits that a relay says it is ready. */
    void awaitReady(const std::string& sHost);

    /** Ends a relay with a signal, and waits for it. @return its exit status */
    int endRelay(const std::string& sHost, int nSignal);

    /** @return what the relays of a host have written to their log so far. */
    static std::string logOf(const std::string& sHost);

    /** @return what a host's relay tells Prometheus, with the head of the answer. */
    static std::string metricsOf(const std::string& sHost);

    /** Runs `vornnet-relay` on a host. @return what it prints, and its status */
    std::pair<std::string, int> run(const std::string& sHost, const std::vector<std::string>& arguments);

    /** Awaits that the status of a host's relay has a text; false when it has not in time. */
    bool awaitStatus(const std::string& sHost, const std::string& sText,
                     std::chrono::milliseconds limit = defaultLimit);

    /** The same as run() with the administrator's certificate. */
    std::pair<std::string, int> runAsAdministrator(const std::string& sHost,
                                                   const std::vector<std::string>& arguments);

    /** Starts a sink on a host with one callback; it takes a lease. An empty name is anonymous; with "-" it
     * is a TCP sink without a lease. */
    ChildProcess startSink(const std::string& sHost, const std::string& sName, const std::string& sLog,
                           const std::string& sKind = "plain");

    /** Starts a service that sends the numbers from 1 on to a leased address: "plain" in a burst, "paced"
     * with a pause after each, or "confirmed", each when the one before is. */
    ChildProcess startService(const std::string& sHost, const std::string& sKind, const std::string& sLease,
                              int nCount);

    /** What a sink has written to its log. */
    static History history(const std::string& sLog, int nCount);

    /** Awaits that a log has that many different numbers; false when it has not in time. */
    static bool awaitNumbers(const std::string& sLog, std::size_t nCount,
                             std::chrono::seconds limit = std::chrono::seconds(60));

    /** Awaits that a log has the numbers from 1 to a count; a test failure unless each came once, in order.
     */
    void expectEachOnceInOrder(const std::string& sLog, std::size_t nCount,
                               std::chrono::seconds limit = std::chrono::seconds(60));

    VornRelay::EngineAccess access(const std::string& sUser) const;

    /** The administrator's connection. */
    VornRelay::NatsAdministration administration() const;

    /** The process of a host's relay. */
    pid_t relayProcess(const std::string& sHost) const { return m_relays.at(sHost).pid(); }

    static std::string pathOf(const std::string& sName);

    /** Makes a process of its own one of that host; for roles. */
    static void enterHost(const std::string& sHost);

    /** Takes a lease from this host's relay. @return address and number, with a blank between */
    static std::string leaseFor(const std::string& sName, const VornSupport::VornString& sAddress,
                                long nHandle);

private:
    void createCertificates();
    void configureEngine(int nServer) const;
    void addHost(const std::string& sHost, const VornRelay::NatsAdministration::Limits& limits) const;
    void connectNetwork(const std::string& sHost, const std::string& sProcess,
                        std::chrono::milliseconds delay);
    static std::pair<std::string, int> runWith(const std::string& sUser, const std::string& sHost,
                                               const std::vector<std::string>& arguments);

    const EngineSetup m_setup;
    std::map<std::string, ChildProcess> m_networks; // by host
    std::map<std::string, ChildProcess> m_cables;   // those that are slow
    std::map<int, ChildProcess> m_engines;          // by server
    std::map<std::string, ChildProcess> m_relays;
};

} // namespace VornTest

#endif
