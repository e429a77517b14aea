// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Certificate.h"
#include "Commands.h"
#include "Journal.h"
#include "NatsAdministration.h"

#include "ForwardSubject.h"
#include "RelayLoop.h"
#include "TopicNames.h"

#include <OwnedDescriptor.h>
#include <VornException.h>
#include <VornPipeConnection.h>
#include <VornPipeServer.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <vector>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VornRelay {

namespace {

using Json = nlohmann::json;

constexpr int cStreamMissing = 10059;
constexpr int cConsumerMissing = 10014;
constexpr int cSoon = 30; // days
const char cGrant[] = "give this host the permissions that vornnet relay hosts add prints";
const char cRevoke[] = "give this host the permissions that vornnet relay hosts add prints, and no more";

/** Prints what was found, one line each. */
class Findings {
public:
    void good(const std::string& sText) { std::printf("ok       %s\n", sText.c_str()); }

    void warn(const std::string& sText, const std::string& sRemedy) { add("warning", 1, sText, sRemedy); }

    void bad(const std::string& sText, const std::string& sRemedy) { add("problem", 2, sText, sRemedy); }

    /** @return how many there are that are not good. */
    int count() const { return m_nCount; }

    /** @return 0, 1 with warnings, 2 with problems. */
    int status() const { return m_nWorst; }

private:
    void add(const char* szKind, int nGravity, const std::string& sText, const std::string& sRemedy) {
        std::printf("%-8s %s\n         -> %s\n", szKind, sText.c_str(), sRemedy.c_str());
        m_nWorst = std::max(m_nWorst, nGravity);
        ++m_nCount;
    }

    int m_nWorst = 0;
    int m_nCount = 0;
};

/** Host and port of a server such as "tls://user@host:4222" or "[::1]:4222". */
std::pair<std::string, std::string> placeOf(std::string sServer) {
    for (const char* szBefore : {"://", "@"}) {
        if (const std::size_t nBefore = sServer.find(szBefore); nBefore != std::string::npos)
            sServer.erase(0, nBefore + std::strlen(szBefore));
    }
    const std::size_t nBracket = sServer.rfind(']');
    const std::size_t nColon = sServer.find(':', nBracket == std::string::npos ? 0 : nBracket);
    const std::string sPort = nColon == std::string::npos ? "4222" : sServer.substr(nColon + 1);
    std::string sHost = sServer.substr(0, nColon);
    if (nBracket != std::string::npos)
        sHost = sHost.substr(1, nBracket - 1);
    return {sHost, sPort};
}

/** The engine's first line, which it sends before TLS begins; empty when that address does not answer. */
std::string firstLineAt(const addrinfo& address) {
    const VornNet::OwnedDescriptor socket(System::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval limit{3, 0};
    System::setsockopt(socket.number(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    System::setsockopt(socket.number(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (System::connect(socket.number(), address.ai_addr, address.ai_addrlen) == -1)
        return {};
    std::string sLine;
    std::array<char, 4096> part;
    while (sLine.find("\r\n") == std::string::npos && sLine.size() < 65536) {
        const ssize_t count = System::recv(socket.number(), part.data(), part.size(), 0);
        if (count <= 0)
            return {};
        sLine.append(part.data(), static_cast<std::size_t>(count));
    }
    return sLine;
}

/** What a server says of itself, at the first of its addresses that answers. */
Json greetingOf(const std::string& sServer) {
    const auto [sHost, sPort] = placeOf(sServer);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(sHost.c_str(), sPort.c_str(), &hints, &found) != 0)
        return Json();
    std::string sLine;
    for (const addrinfo* address = found; address != nullptr && sLine.empty(); address = address->ai_next)
        sLine = firstLineAt(*address);
    ::freeaddrinfo(found);
    return sLine.starts_with("INFO ") ? Json::parse(sLine.substr(5), nullptr, false) : Json();
}

bool isOlder(const std::string& sVersion, const std::array<int, 3>& than) {
    std::array<int, 3> version{};
    std::sscanf(sVersion.c_str(), "%d.%d.%d", &version[0], &version[1], &version[2]);
    return version < than;
}

void checkDirectories(const RelaySettings& settings, Findings& findings) {
    if (::access(settings.sStateDirectory.c_str(), R_OK | W_OK | X_OK) == 0)
        findings.good("state directory " + settings.sStateDirectory);
    else
        findings.bad("the state directory " + settings.sStateDirectory + ": " + std::strerror(errno),
                     "create it for the relay's user");
    const std::string sPipes = VornNet::VornPipeServer::getFullPipeName("").c_str();
    if (::access(sPipes.c_str(), R_OK | W_OK | X_OK) == 0)
        findings.good("pipe directory");
    else
        findings.bad("the pipe directory " + sPipes + ": " + std::strerror(errno),
                     "put the relay's user into the group of the pipes; run vornnet doctor");
}

void checkJournal(const RelaySettings& settings, Findings& findings) {
    const std::string sPath = settings.sStateDirectory + "/journal";
    try {
        if (Journal::isDamaged(sPath))
            findings.bad("the journal " + sPath + " is damaged",
                         "the next start puts it aside: what is not acknowledged then comes twice");
        else if (::access((sPath + ".damaged").c_str(), F_OK) == 0)
            findings.warn("a damaged journal was put aside as " + sPath + ".damaged",
                          "look for the cause, and remove it");
        else
            findings.good("journal");
    } catch (const std::system_error& error) {
        findings.bad(std::string("the journal: ") + error.what(), "run this as the relay's user");
    }
}

/** A socket file is created beside others, and an address that is not there cannot be bound. */
void checkPlaces(const RelaySettings& settings, Findings& findings) {
    const std::string sDirectory = settings.sMetrics.substr(0, settings.sMetrics.rfind('/') + 1);
    if (!settings.sMetrics.empty() && ::access(sDirectory.c_str(), W_OK | X_OK) != 0)
        findings.bad("the directory of metrics " + settings.sMetrics + ": " + std::strerror(errno),
                     "choose a file in /run/vornnet-relay");
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_addr = settings.redirectAddress(settings.access.sHost);
    const VornNet::OwnedDescriptor socket(System::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (System::bind(socket.number(), reinterpret_cast<const sockaddr*>(&place), sizeof place) == -1)
        findings.bad("this host does not have its redirect-address",
                     "systemctl start vornnet-relay-redirect");
    const bool bHasOthers =
        settings.redirectAddresses.size() > settings.redirectAddresses.count(settings.access.sHost);
    if (bHasOthers && settings.nRedirectPort == 0)
        findings.bad("redirect-address of other hosts without redirect-port", "configure redirect-port");
}

void checkCertificate(const RelaySettings& settings, Findings& findings) {
    const EngineAccess& access = settings.access;
    if (access.sCertificate.empty())
        return;
    try {
        const Certificate certificate(access.sCertificate);
        const int nDays = certificate.daysLeft();
        if (nDays < 0)
            findings.bad("the certificate " + access.sCertificate + " has expired", "renew it");
        else if (nDays < cSoon)
            findings.warn("the certificate " + access.sCertificate + " expires in " + std::to_string(nDays) +
                              (nDays == 1 ? " day" : " days"),
                          "renew it; it is read again at the next connection");
        else
            findings.good("certificate, " + std::to_string(nDays) + " days left");
        if (!certificate.hasName(access.sHost))
            findings.bad("the certificate " + access.sCertificate + " is not for the DNS name " +
                             access.sHost,
                         "the engine knows a host by the DNS name of its certificate");
    } catch (const std::exception& error) {
        findings.bad(error.what(), "see whether it is a certificate, and readable for this user");
    }

    struct stat key {};

    if (::stat(access.sKey.c_str(), &key) == 0 && (key.st_mode & 0077U) != 0)
        findings.warn("others may read the key " + access.sKey, "chmod 600, and owned by vornrelay");
}

void checkServers(const RelaySettings& settings, Findings& findings) {
    for (const std::string& sServer : settings.access.servers) {
        const Json greeting = greetingOf(sServer);
        if (!greeting.is_object()) {
            findings.warn(sServer + " does not answer", "see whether nats-server runs, and the address");
            continue;
        }
        const std::string sVersion = greeting.value("version", "");
        if (isOlder(sVersion, {2, 12, 7}))
            findings.warn(sServer + " is nats-server " + sVersion,
                          "for production 2.12.7 or later: older ones have published faults");
        else
            findings.good(sServer + " is nats-server " + sVersion);
        if (!greeting.value("jetstream", false))
            findings.bad(sServer + " has no JetStream", "configure jetstream on the server");
        if (!greeting.value("tls_required", false))
            findings.warn(sServer + " takes connections without TLS", "configure tls with verify_and_map");
    }
    if (settings.access.sCa.empty())
        findings.warn("no ca is configured: what is sent can be read and changed on the way",
                      "configure ca, certificate and key");
}

void checkStream(const RelaySettings& settings, NatsAdministration& engine, Findings& findings) {
    const std::string sStream = "VORN_TO_" + settings.access.sHost;
    try {
        const Json info = engine.request("$JS.API.CONSUMER.INFO." + sStream + ".relay");
        findings.good("stream " + sStream + ", " + info.value("num_pending", Json(0)).dump() + " waiting");
        const std::size_t nOthers =
            info.contains("cluster") ? info["cluster"].value("replicas", Json::array()).size() : 0;
        if (nOthers < 2)
            findings.warn(sStream + " has " + std::to_string(nOthers + 1) + " replica" +
                              (nOthers == 0 ? "" : "s"),
                          "for production three servers; the administrator: vornnet relay hosts add " +
                              settings.access.sHost + " --replicas 3");
    } catch (const AdministrationError& error) {
        if (error.code() == cConsumerMissing && settings.access.bFixedConsumer)
            findings.bad(sStream + " has no consumer, and this host may not create one",
                         "the administrator: vornnet relay hosts add " + settings.access.sHost +
                             " --consumer fixed");
        else if (error.code() == cConsumerMissing)
            findings.good("stream " + sStream + ", and no relay has read it yet");
        else if (error.code() == cStreamMissing)
            findings.bad("there is no stream " + sStream,
                         "the administrator: vornnet relay hosts add " + settings.access.sHost);
        else
            findings.bad(sStream + ": " + error.what(), cGrant);
    }
}

/** Each of these is granted by the block that hosts add prints, and the relay does not work without it. */
void checkGranted(const RelaySettings& settings, NatsAdministration& engine, Findings& findings) {
    const std::string& sHost = settings.access.sHost;
    std::vector<std::string> subjects{"vorn.gone." + sHost, "vorn.dead." + sHost};
    if (!settings.bReceive)
        subjects.clear();
    for (const std::string& sTo : settings.sendTo)
        subjects.push_back("vorn.to." + sTo + ".sink.lease.0");
    for (const auto& [sTopic, sAddress] : settings.topics)
        subjects.push_back(subjectOfTopic(sHost, sTopic));
    for (const auto& [sTopic, sFollowed] : settings.followed)
        subjects.push_back("$JS.API.STREAM.MSG.GET." + streamOfTopics(sFollowed));
    std::vector<std::string> heard{inboxOf(settings.access) + ".>", "vorn.gone.*"};
    for (const auto& [sTopic, sFollowed] : settings.followed)
        heard.push_back(subjectOfNews(sFollowed, sTopic));
    if (!settings.offered.empty()) {
        subjects.push_back(ForwardSubject{false, "doctor", sHost, "doctor", "doctor"}.text());
        heard.push_back(ForwardSubject{true, sHost, "*", "*", "*"}.text());
    }
    for (const auto& [sService, sAt] : settings.reached) {
        subjects.push_back(ForwardSubject{true, sAt, sHost, sService, "doctor"}.text());
        heard.push_back(ForwardSubject{false, sHost, sAt, sService, "*"}.text());
    }
    for (const std::string& sSubject : subjects) {
        if (!engine.mayPublishTo(sSubject))
            findings.bad("this host may not publish to " + sSubject, cGrant);
    }
    const std::string sReceipt = "$JS.ACK.hub.account.VORN_TO_" + sHost + ".relay.1.1.1.1.0";
    if (settings.bReceive && !engine.mayPublishTo(sReceipt))
        findings.warn("this host may not acknowledge where servers name domain and account", cGrant);
    for (const std::string& sSubject : heard) {
        if (!engine.mayListenTo(sSubject))
            findings.bad("this host may not subscribe to " + sSubject, cGrant);
    }
}

/** None of these does harm when it is allowed: what they name does not exist. */
void checkForbidden(const RelaySettings& settings, NatsAdministration& engine, Findings& findings) {
    const std::string sOwnStream = "VORN_TO_" + settings.access.sHost;
    std::vector<std::string> forbidden{"vorn.dead.doctor",
                                       "vorn.gone.doctor",
                                       "vorn.reach.doctor.doctor.doctor.doctor",
                                       "vorn.offer.doctor.doctor.doctor.doctor",
                                       "$JS.ACK.VORN_TO_doctor.relay.1.1.1.1.0",
                                       "$JS.ACK.hub.account.VORN_TO_doctor.relay.1.1.1.1.0",
                                       "$JS.API.STREAM.CREATE.VORN_doctor",
                                       "$JS.API.STREAM.DELETE.VORN_TO_doctor",
                                       "$JS.API.CONSUMER.MSG.NEXT.VORN_TO_doctor.relay",
                                       "$JS.API.CONSUMER.DURABLE.CREATE.VORN_TO_doctor.relay",
                                       "$JS.API.CONSUMER.CREATE." + sOwnStream};
    if (settings.access.bFixedConsumer) {
        forbidden.push_back("$JS.API.CONSUMER.DURABLE.CREATE." + sOwnStream + ".doctor");
        forbidden.push_back("$JS.API.CONSUMER.DELETE." + sOwnStream + ".doctor");
    }
    const int nBefore = findings.count();
    for (const std::string& sSubject : forbidden) {
        if (engine.mayPublishTo(sSubject))
            findings.warn("this host may publish to " + sSubject, cRevoke);
    }
    if (engine.mayListenTo("vorn.to.>"))
        findings.warn("this host may read what is sent to all others", cRevoke);
    for (const char* szSubject : {"vorn.reach.doctor.>", "vorn.offer.doctor.>"}) {
        if (engine.mayListenTo(szSubject))
            findings.warn(std::string("this host may read what other hosts' connections carry: ") + szSubject,
                          cRevoke);
    }
    if (engine.mayListenTo("_INBOX_doctor.>"))
        findings.warn("this host may read the answers to others: _INBOX_doctor.>", cRevoke);
    if (findings.count() == nBefore)
        findings.good("what is forbidden is denied");
}

void checkEngine(const RelaySettings& settings, Findings& findings) {
    try {
        NatsAdministration engine(settings.access);
        findings.good("connected as " + settings.access.sHost);
        if (settings.bReceive)
            checkStream(settings, engine, findings);
        checkGranted(settings, engine, findings);
        checkForbidden(settings, engine, findings);
    } catch (const std::exception& error) {
        findings.bad(std::string("no connection to the engine: ") + error.what(),
                     "see whether it runs, the certificates, and the name in them");
    }
}

void checkRelay(Findings& findings) {
    try {
        VornNet::VornPipeConnection connection("relay");
        connection.establish();
        connection.transfer(VornSupport::VornString("status"));
        const Json status = Json::parse(connection.receiveString().c_str(), nullptr, false);
        if (status.is_object() && status.value("ready", false))
            findings.good("the relay runs and is ready");
        else
            findings.bad("the relay runs and is not ready", "see its log");
    } catch (const VornSupport::VornException& error) {
        findings.bad("the relay does not run, or not for this user", "systemctl status vornnet-relay");
    }
    findings.good(
        "whether the servers sync before they answer cannot be seen from here: sync_interval: always");
}

} // namespace

int checkHost(const std::string& sSettingsFile) {
    Findings findings;
    try {
        const RelaySettings settings = RelaySettings::read(sSettingsFile);
        findings.good("configuration of " + settings.access.sHost);
        checkDirectories(settings, findings);
        checkJournal(settings, findings);
        checkPlaces(settings, findings);
        checkCertificate(settings, findings);
        checkServers(settings, findings);
        checkEngine(settings, findings);
    } catch (const SettingsError& error) {
        findings.bad(error.what(), "see the manual of vornnet relay");
    }
    checkRelay(findings);
    return findings.status();
}

} // namespace VornRelay
