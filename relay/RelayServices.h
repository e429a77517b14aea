// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_RELAYSERVICES_H
#define VORNRELAY_RELAYSERVICES_H

#include "AcceptingPipe.h"
#include "Engine.h"
#include "ForwardedConnection.h"
#include "RelayLog.h"
#include "RelaySettings.h"

#include <CallbackEndpoint.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

namespace VornRelay {

/**
 * The services that clients of other hosts may reach: those that this host offers, and those of other hosts,
 * each at a pipe NAME@HOST of this one. Whoever connects there is connected with the service, through the
 * engine.
 *
 * While the engine is away the pipes are closed, so clients are refused as by a service that does not run.
 *
 * Thread-safety: none. Blocking: none. Ownership: loop and engine must outlive it. Signals: none raised.
 * Errors: what goes wrong is logged.
 */
class RelayServices : private ForwardedConnection::Owner {
public:
    /** Most connections at once, with clients and with services together. */
    static constexpr std::size_t mostConnections = 256;

    RelayServices(RelayLoop& loop, Engine& engine, const RelaySettings& settings);
    ~RelayServices() override;

    RelayServices(const RelayServices&) = delete;
    RelayServices& operator=(const RelayServices&) = delete;

    /** Takes what the configuration says now. What it does not have any more is closed, and its connections
     * are reset; the others are not touched. */
    void change(const RelaySettings& settings);

    void setConnected(bool bConnected);

    /** Something was told on that subject. @return whether it was for this */
    bool told(const std::string& sSubject, const std::string& sText);

    /** Resets all connections, and takes no more. */
    void stop();

    nlohmann::json status() const;

    /** Appends how many connections there are and what they have carried, as Prometheus reads it. */
    void printMetrics(std::string& sText) const;

private:
    /** A service, here or there. */
    struct Service {
        std::string sName;
        std::string sAddress;                        // where it is reached on this host
        std::optional<VornNet::CallbackEndpoint> at; // of one that is offered
        std::string sHost;                           // of one of another host
        std::unique_ptr<AcceptingPipe> spPipe;       // the same
        std::size_t nConnections = 0;
        std::string sFailure; // the last one
        RareLine failureLine;
    };

    void tell(const ForwardSubject& subject, const ForwardPiece& piece) override;
    void ended(ForwardedConnection& connection, const std::string& sWhy) override;
    std::size_t mostBytes() const override;

    static std::map<std::string, Service> servicesIn(const RelaySettings& settings);
    ForwardSubject heardFor(const Service& service) const;
    void begin(Service& service);
    void end(Service& service);
    void look();
    void openPipes();
    void accept(Service& service, VornNet::OwnedDescriptor&& client);
    void open(const ForwardSubject& subject, const ForwardPiece& opening);
    void refuse(const ForwardSubject& subject, const std::string& sWhy);
    void add(const std::shared_ptr<ForwardedConnection>& spConnection);
    Service* find(const ForwardSubject& subject);
    static void fail(Service& service, const std::string& sWhy);

    RelayLoop& m_loop;
    Engine& m_engine;
    const std::string m_sHost;
    std::map<std::string, Service> m_services;                                 // by NAME, or NAME@HOST
    std::map<std::string, std::shared_ptr<ForwardedConnection>> m_connections; // by the subject of this end
    bool m_bConnected = false;
    bool m_bStopped = false;
    RareLine m_versionLine;
    std::uint64_t m_nBytes = 0;
    std::uint64_t m_nResets = 0;
    RelayLoop::Timer m_look = 0;
};

} // namespace VornRelay

#endif
