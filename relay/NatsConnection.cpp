// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "NatsConnection.h"

#include <stdexcept>

namespace VornRelay {

namespace {

void check(natsStatus status, const char* szWhat) {
    if (status != NATS_OK)
        throw std::runtime_error(std::string(szWhat) + ": " + textOf(status));
}

void setTls(natsOptions* options, const EngineAccess& access) {
    check(natsOptions_SetSecure(options, true), "TLS");
    check(natsOptions_LoadCATrustedCertificates(options, access.sCa.c_str()), access.sCa.c_str());
    if (!access.sCertificate.empty())
        check(natsOptions_LoadCertificatesChain(options, access.sCertificate.c_str(), access.sKey.c_str()),
              access.sCertificate.c_str());
}

} // namespace

std::string textOf(natsStatus status) {
    natsStatus last = NATS_OK;
    const char* szDetail = nats_GetLastError(&last);
    std::string sText = natsStatus_GetText(status);
    if (last == status && szDetail != nullptr && *szDetail != '\0')
        sText.append(": ").append(szDetail);
    return sText;
}

NatsPointer<natsOptions> optionsFor(const EngineAccess& access, std::chrono::milliseconds connectLimit) {
    natsOptions* created = nullptr;
    check(natsOptions_Create(&created), "options");
    NatsPointer<natsOptions> options(created);
    std::vector<const char*> servers;
    for (const std::string& sServer : access.servers)
        servers.push_back(sServer.c_str());
    check(natsOptions_SetServers(created, servers.data(), static_cast<int>(servers.size())), "servers");
    check(natsOptions_SetName(created, ("vornnet-relay " + access.sHost).c_str()), "name");
    check(natsOptions_SetTimeout(created, connectLimit.count()), "time limit");
    check(natsOptions_SetAllowReconnect(created, false), "reconnecting");
    check(natsOptions_SetReconnectBufSize(created, 0), "reconnect buffer");
    check(natsOptions_SetSendAsap(created, true), "sending");
    check(natsOptions_SetWriteDeadline(created, access.writeLimit.count()), "write limit");
    check(natsOptions_SetPingInterval(created, 3000), "ping interval");
    check(natsOptions_SetMaxPingsOut(created, 2), "pings");
    check(natsOptions_SetCustomInboxPrefix(created, inboxOf(access).c_str()), "inbox");
    if (!access.sLogin.empty())
        check(natsOptions_SetUserInfo(created, access.sLogin.c_str(), access.sPassword.c_str()), "login");
    if (!access.sCa.empty())
        setTls(created, access);
    return options;
}

std::string inboxOf(const EngineAccess& access) {
    return "_INBOX_" + access.sHost;
}

} // namespace VornRelay
