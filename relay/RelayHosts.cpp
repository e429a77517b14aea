// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayHosts.h"

#include "RelayLog.h"
#include "StateFile.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

namespace VornRelay {

RelayHosts::RelayHosts(RelayLoop& loop, Engine& engine, const RelaySettings& settings,
                       RelayCounters& counters)
    : m_loop(loop), m_engine(engine), m_settings(settings),
      m_counters(counters), m_number{nextBootNumber(settings.sStateDirectory + "/boot"), 0} {
    m_engine.listenTo("vorn.gone.*");
    for (const std::string& sHost : m_settings.sendTo)
        add(sHost);
    if (m_settings.nRedirectPort != 0)
        m_redirectPort.emplace(m_loop, m_settings.nRedirectPort,
                               [this](VornNet::OwnedDescriptor&& connection, const sockaddr_in& meant) {
                                   redirected(std::move(connection), meant);
                               });
}

void RelayHosts::open() {
    for (const auto& [sHost, spHost] : m_hosts) {
        if (isWanted(sHost))
            spHost->pipe().open();
    }
    if (m_redirectPort)
        m_redirectPort->open();
}

void RelayHosts::change(const RelaySettings& settings) {
    if (!m_settings.bSendToAll) // until the engine has told, those remain who were listed
        m_found.insert(m_settings.sendTo.begin(), m_settings.sendTo.end());
    m_settings.sendTo = settings.sendTo;
    m_settings.bSendToAll = settings.bSendToAll;
    m_settings.redirectAddresses = settings.redirectAddresses;
    for (const std::string& sHost : m_settings.sendTo)
        addNow(sHost);
}

void RelayHosts::setConnected(bool bConnected) {
    m_bConnected = bConnected;
    for (const auto& [sHost, spHost] : m_hosts)
        spHost->queue().setConnected(bConnected);
}

void RelayHosts::ask() {
    if (m_settings.bSendToAll)
        m_engine.listHosts([this](const std::vector<std::string>* pHosts) {
            if (pHosts != nullptr)
                found(*pHosts);
        });
}

void RelayHosts::told(const std::string& sSubject, const std::string& sText) {
    const auto host = m_hosts.find(sSubject.substr(sSubject.rfind('.') + 1));
    std::uint32_t nLease = 0;
    std::from_chars(sText.data(), sText.data() + sText.size(), nLease);
    if (host != m_hosts.end() && nLease != 0)
        host->second->setGone(nLease);
}

void RelayHosts::look() {
    removeUnwanted();
    admitServices();
}

void RelayHosts::stop() {
    m_bStopped = true;
    if (m_redirectPort)
        m_redirectPort->close(); // first: what it accepts is read by the pipes that are open
    for (const auto& [sHost, spHost] : m_hosts)
        spHost->pipe().close();
}

bool RelayHosts::isIdle() {
    return std::all_of(m_hosts.begin(), m_hosts.end(), [](const auto& entry) {
        return entry.second->pipe().reading() == 0 && entry.second->queue().size() == 0;
    });
}

std::size_t RelayHosts::heldBytes() {
    std::size_t nBytes = 0;
    for (const auto& [sHost, spHost] : m_hosts)
        nBytes += spHost->queue().bytes();
    return nBytes;
}

std::uint64_t RelayHosts::repeated() const {
    std::uint64_t nRepeated = m_nRepeatedByRemoved;
    for (const auto& [sHost, spHost] : m_hosts)
        nRepeated += spHost->queue().repeated();
    return nRepeated;
}

nlohmann::json RelayHosts::status() const {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& [sHost, spHost] : m_hosts)
        list.push_back({{"host", sHost},
                        {"open", spHost->pipe().isOpen()},
                        {"waiting", spHost->queue().size()},
                        {"bytes", spHost->queue().bytes()},
                        {"full", spHost->queue().isFull()},
                        {"failure", spHost->queue().failure()},
                        {"repeated", spHost->queue().repeated()}});
    return list;
}

void RelayHosts::add(const std::string& sHost) {
    const auto [entry, bIsNew] = m_hosts.try_emplace(sHost);
    if (!bIsNew)
        return;
    entry->second = std::make_unique<RemoteHost>(m_loop, m_engine, m_settings.access.sHost, sHost,
                                                 m_settings.nWindow, m_number, m_counters);
    entry->second->queue().setConnected(m_bConnected);
}

/** Adds a host while services are accepted. */
void RelayHosts::addNow(const std::string& sHost) try {
    add(sHost);
    if (!m_bStopped)
        m_hosts.at(sHost)->pipe().open();

} catch (const std::system_error&) {

    // It is tried again, and then told.
}

/** @return whether services of this host may notify that one. */
bool RelayHosts::isWanted(const std::string& sHost) const {
    const std::vector<std::string>& listed = m_settings.sendTo;
    return m_settings.bSendToAll ? m_found.contains(sHost)
                                 : std::find(listed.begin(), listed.end(), sHost) != listed.end();
}

void RelayHosts::found(const std::vector<std::string>& hosts) {
    std::set<std::string> others(hosts.begin(), hosts.end());
    others.erase(m_settings.access.sHost);
    for (const std::string& sHost : others) {
        if (!m_hosts.contains(sHost))
            addNow(sHost);
    }
    m_found = std::move(others);
}

void RelayHosts::removeUnwanted() {
    std::erase_if(m_hosts, [this](const auto& entry) {
        if (isWanted(entry.first))
            return false;
        entry.second->pipe().close();
        if (entry.second->pipe().reading() > 0 || entry.second->queue().size() > 0)
            return false;
        m_nRepeatedByRemoved += entry.second->queue().repeated();
        return true;
    });
}

/** Each host may have as much as is left for all, so that one that is away does not take what others need. */
void RelayHosts::admitServices() {
    const std::size_t nLimit = m_settings.nHoldBytes;
    const std::size_t nMost = m_hosts.size() == 1 ? nLimit : nLimit - std::min(nLimit, heldBytes());
    for (const auto& [sHost, spHost] : m_hosts) {
        spHost->complain();
        if (!isWanted(sHost))
            continue;
        try {
            spHost->admit(nMost);
        } catch (const std::system_error& error) {
            logLine(LogLevel::failure, std::string("a pipe cannot be opened: ") + error.what());
        }
    }
}

/** A connection to nobody who may be notified now is reset. */
void RelayHosts::redirected(VornNet::OwnedDescriptor&& connection, const sockaddr_in& meant) {
    for (const auto& [sHost, spHost] : m_hosts) {
        if (spHost->pipe().isOpen() && meant.sin_addr.s_addr != INADDR_ANY &&
            m_settings.redirectAddress(sHost).s_addr == meant.sin_addr.s_addr) {
            spHost->pipe().take(std::move(connection), ntohs(meant.sin_port));
            return;
        }
    }
    const linger reset{1, 0};
    System::setsockopt(connection.number(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ++m_counters.nRefused;
}

} // namespace VornRelay
