// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayServices.h"

#include "RelayCounters.h"

#include <Random.h>
#include <ServiceAddress.h>

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

namespace VornRelay {

namespace {

constexpr std::chrono::milliseconds cLookInterval{250};

/** @return a connection's token, which nobody has had or can foresee. */
std::string newToken() {
    return std::to_string(VornNet::randomNumber());
}

} // namespace

RelayServices::RelayServices(RelayLoop& loop, Engine& engine, const RelaySettings& settings)
    : m_loop(loop), m_engine(engine), m_sHost(settings.access.sHost) {
    change(settings);
}

RelayServices::~RelayServices() {
    m_loop.cancel(m_look);
    for (const auto& [sSubject, spConnection] : m_connections) {
        spConnection->close();
        m_loop.discard(spConnection);
    }
}

void RelayServices::change(const RelaySettings& settings) {
    std::map<std::string, Service> wanted = servicesIn(settings);
    for (auto entry = m_services.begin(); entry != m_services.end();) {
        const auto found = wanted.find(entry->first);
        const auto current = entry++;
        if (found != wanted.end() && found->second.sAddress == current->second.sAddress)
            continue;
        end(current->second);
        m_services.erase(current);
    }
    for (auto& [sName, service] : wanted) {
        if (const auto [added, bIsNew] = m_services.try_emplace(sName, std::move(service)); bIsNew)
            begin(added->second);
    }
    if (m_bConnected)
        openPipes();
}

void RelayServices::setConnected(bool bConnected) {
    m_bConnected = bConnected;
    m_loop.cancel(m_look);
    if (bConnected) {
        look();
        return;
    }
    for (const auto& [sName, service] : m_services) {
        if (service.spPipe)
            service.spPipe->close();
    }
    const auto connections = m_connections;
    for (const auto& [sSubject, spConnection] : connections)
        spConnection->engineLost();
}

bool RelayServices::told(const std::string& sSubject, const std::string& sText) {
    const std::optional<ForwardSubject> subject = ForwardSubject::of(sSubject);
    if (!subject)
        return false;
    const ForwardSubject own = subject->back();
    const std::optional<ForwardPiece> piece = ForwardPiece::of(sText);
    const auto found = m_connections.find(own.text());
    if (sText.empty())
        return true; // somebody has tried whether he may
    if (!piece)      // an answer would be none to the other relay either, and be answered
        m_versionLine.write(LogLevel::warning,
                            "a relay of another version forwards connections: " + subject->sFrom);
    else if (found != m_connections.end())
        std::shared_ptr(found->second)->take(*piece);
    else if (!own.bToService && (piece->nFlags & ForwardPiece::opens) != 0)
        open(own, *piece);
    else if ((piece->nFlags & ForwardPiece::resets) == 0)
        refuse(own, "there is no such connection");
    return true;
}

void RelayServices::stop() {
    m_bStopped = true;
    for (const auto& [sName, service] : m_services) {
        if (service.spPipe)
            service.spPipe->close();
    }
    const auto connections = m_connections;
    for (const auto& [sSubject, spConnection] : connections)
        spConnection->reset("the relay was stopped");
}

nlohmann::json RelayServices::status() const {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& [sName, service] : m_services)
        list.push_back({{"service", sName},
                        {"address", service.sAddress},
                        {"state", !service.spPipe            ? "offered"
                                  : service.spPipe->isOpen() ? "open"
                                                             : "closed"},
                        {"connections", service.nConnections},
                        {"failure", service.sFailure}});
    return list;
}

void RelayServices::printMetrics(std::string& sText) const {
    printMetric(sText, "forwarded_connections", "gauge", std::to_string(m_connections.size()));
    printMetric(sText, "forwarded_bytes_total", "counter", std::to_string(m_nBytes));
    printMetric(sText, "forwarded_resets_total", "counter", std::to_string(m_nResets));
}

void RelayServices::tell(const ForwardSubject& subject, const ForwardPiece& piece) {
    m_nBytes += (piece.nFlags & ForwardPiece::resets) == 0 ? piece.sBytes.size() : 0;
    m_engine.tell(subject.text(), piece.text());
}

void RelayServices::ended(ForwardedConnection& connection, const std::string& sWhy) {
    const auto entry = m_connections.extract(connection.subject().text());
    if (entry.empty())
        return;
    m_loop.discard(entry.mapped());
    Service& service = *find(connection.subject());
    --service.nConnections;
    if (sWhy.empty())
        return;
    ++m_nResets;
    fail(service, sWhy);
}

std::size_t RelayServices::mostBytes() const {
    return std::max(m_engine.mostContent(), ForwardPiece::headerSize) - ForwardPiece::headerSize;
}

std::map<std::string, RelayServices::Service> RelayServices::servicesIn(const RelaySettings& settings) {
    std::map<std::string, Service> services;
    for (const auto& [sName, sAddress] : settings.offered) {
        Service& service = services[sName];
        service.sName = sName;
        service.sAddress = sAddress;
        service.at = VornNet::ServiceAddress::ofClient(sAddress.c_str()).value();
    }
    for (const auto& [sName, sHost] : settings.reached) {
        Service& service = services[sName + "@" + sHost];
        service.sName = sName;
        service.sHost = sHost;
        service.sAddress = "pipe:" + sName + "@" + sHost;
    }
    return services;
}

/** @return what is told of a service's connections. Those of services here are answered also when there is no
 * such service. */
ForwardSubject RelayServices::heardFor(const Service& service) const {
    return service.at ? ForwardSubject{true, m_sHost, "*", "*", "*"}
                      : ForwardSubject{false, m_sHost, service.sHost, service.sName, "*"};
}

void RelayServices::begin(Service& service) {
    if (!service.at)
        service.spPipe = std::make_unique<AcceptingPipe>(
            m_loop, service.sName + "@" + service.sHost,
            [this, &service](VornNet::OwnedDescriptor&& client) { accept(service, std::move(client)); });
    m_engine.listenTo(heardFor(service).text());
}

void RelayServices::end(Service& service) {
    if (service.spPipe) {
        service.spPipe->close();
        m_loop.discard(std::move(service.spPipe)); // an event of this turn may be on its way to it
        m_engine.ignore(heardFor(service).text());
    }
    const auto connections = m_connections;
    for (const auto& [sSubject, spConnection] : connections) {
        if (find(spConnection->subject()) == &service)
            spConnection->reset("the service was taken out of the configuration");
    }
}

void RelayServices::look() {
    m_look = m_loop.after(cLookInterval, [this] { look(); });
    openPipes();
    const auto connections = m_connections;
    for (const auto& [sSubject, spConnection] : connections)
        spConnection->look(RelayLoop::Clock::now());
}

void RelayServices::openPipes() {
    for (auto& [sName, service] : m_services) {
        try {
            if (service.spPipe && !m_bStopped)
                service.spPipe->open();
        } catch (const std::system_error& error) {
            fail(service, std::string("its pipe cannot be opened: ") + error.what());
        }
    }
}

void RelayServices::accept(Service& service, VornNet::OwnedDescriptor&& client) {
    if (!m_bConnected || m_bStopped)
        return; // closes it
    if (m_connections.size() >= mostConnections) {
        fail(service, "too many connections");
        return;
    }
    ++service.nConnections;
    Owner& owner = *this;
    add(std::make_shared<ForwardedConnection>(
        m_loop, owner, ForwardSubject{true, service.sHost, m_sHost, service.sName, newToken()},
        std::move(client)));
}

void RelayServices::open(const ForwardSubject& subject, const ForwardPiece& opening) {
    Service* pService = find(subject);
    if (pService == nullptr || m_bStopped) {
        refuse(subject, "there is no such service");
    } else if (m_connections.size() >= mostConnections) {
        fail(*pService, "too many connections");
        refuse(subject, "too many connections");
    } else {
        ++pService->nConnections;
        Owner& owner = *this;
        const auto spConnection =
            std::make_shared<ForwardedConnection>(m_loop, owner, subject, *pService->at);
        add(spConnection);
        spConnection->take(opening);
    }
}

void RelayServices::refuse(const ForwardSubject& subject, const std::string& sWhy) {
    tell(subject, {ForwardPiece::resets, 0, 0, sWhy});
}

void RelayServices::add(const std::shared_ptr<ForwardedConnection>& spConnection) {
    m_connections[spConnection->subject().text()] = spConnection;
    spConnection->begin();
}

/** @param subject of this host's end */
RelayServices::Service* RelayServices::find(const ForwardSubject& subject) {
    const auto found = m_services.find(subject.sService + (subject.bToService ? "@" + subject.sTo : ""));
    return found == m_services.end() ? nullptr : &found->second;
}

void RelayServices::fail(Service& service, const std::string& sWhy) {
    service.sFailure = sWhy;
    service.failureLine.write(LogLevel::warning, "service " + service.sName +
                                                     (service.sHost.empty() ? "" : "@" + service.sHost) +
                                                     ": " + sWhy);
}

} // namespace VornRelay
