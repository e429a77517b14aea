// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Commands.h"
#include "NatsAdministration.h"

#include "ControlPipe.h"
#include "NotificationNumber.h"
#include "RelayLoop.h"
#include "RemoteHost.h"

#include <OwnedDescriptor.h>
#include <Values.h>
#include <VornPipeServer.h>

#include <algorithm>
#include <cstdio>

#include <sys/un.h>

namespace VornRelay {

namespace {

using Json = nlohmann::json;

std::string textOf(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

/** Writes an exchange to a relay's pipe as a service does that waits for the end. @return whether it is
 * stored */
bool sendThrough(const std::string& sPipe, const std::string& sExchange) {
    const VornSupport::VornString sPath = VornNet::VornPipeServer::getFullPipeName(sPipe.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    sPath.copy(address.sun_path, sizeof address.sun_path - 1);
    const VornNet::OwnedDescriptor socket(System::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (System::connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        return false;
    for (std::size_t nDone = 0; nDone < sExchange.size();) {
        const ssize_t count =
            System::send(socket.number(), sExchange.data() + nDone, sExchange.size() - nDone, MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        nDone += static_cast<std::size_t>(count);
    }
    char none = 0;
    return System::shutdown(socket.number(), SHUT_WR) == 0 && System::recv(socket.number(), &none, 1, 0) == 0;
}

/** @return a notification as a service writes it. A word that is a number is a long, as an id is. */
std::string exchangeOf(std::uint32_t nLease, const std::vector<std::string>& words) {
    std::string sExchange;
    putLong(sExchange, nLease);
    for (const std::string& sWord : words) {
        const bool bIsNumber = !sWord.empty() && sWord.find_first_not_of("0123456789") == std::string::npos;
        sExchange += VornTool::encoded(VornTool::parseValue(bIsNumber ? "long:" + sWord : sWord));
    }
    return sExchange;
}

} // namespace

int addHost(const RelaySettings& settings, const std::string& sHost, const std::vector<std::string>& sendTo,
            std::int64_t nMegabytes, std::int64_t nMessages, std::int64_t nHours, int nReplicas,
            bool bFixedConsumer, const HostRights& rights) {
    const std::string sPermissions = permissionsOf(sHost, sendTo, bFixedConsumer, rights);
    NatsAdministration engine(settings.access);
    engine.addHost(hostToken(sHost), {nMegabytes << 20, nMessages > 0 ? nMessages : nMegabytes << 10,
                                      nHours * 3600, nReplicas, bFixedConsumer, 30, rights.bTopics});
    std::printf("%s", sPermissions.c_str());
    return exitDone;
}

int removeHost(const RelaySettings& settings, const std::string& sHost) {
    NatsAdministration(settings.access).removeHost(hostToken(sHost));
    return exitDone;
}

int listHosts(const RelaySettings& settings, bool bJson) {
    for (const Json& host : NatsAdministration(settings.access).hosts()) {
        if (bJson)
            std::printf("%s\n", host.dump().c_str());
        else
            std::printf("%-24s %s messages, %s of %s bytes, replicas %s\n", textOf(host["host"]).c_str(),
                        textOf(host["messages"]).c_str(), textOf(host["bytes"]).c_str(),
                        textOf(host["limit"]).c_str(), textOf(host["replicas"]).c_str());
    }
    return exitDone;
}

int listDeadLetters(const RelaySettings& settings, bool bJson) {
    for (const DeadLetter& letter : NatsAdministration(settings.access).deadLetters()) {
        const std::string sReason = letter.header("Vorn-Reason");
        const std::string sSubject = letter.header("Vorn-Subject");
        const std::string sFrom = letter.header("Vorn-From");
        if (bJson)
            std::printf("%s\n", Json{{"number", letter.nPosition},
                                     {"time", letter.sTime},
                                     {"reason", sReason},
                                     {"from", sFrom},
                                     {"subject", sSubject},
                                     {"bytes", letter.sContent.size()}}
                                    .dump()
                                    .c_str());
        else
            std::printf("%llu %s %s from %s to %s, %zu bytes\n",
                        static_cast<unsigned long long>(letter.nPosition), letter.sTime.c_str(),
                        sReason.c_str(), sFrom.c_str(), sSubject.c_str(), letter.sContent.size());
    }
    return exitDone;
}

int showDeadLetter(const RelaySettings& settings, std::uint64_t nPosition) {
    const DeadLetter letter = NatsAdministration(settings.access).deadLetter(nPosition);
    for (const auto& [sName, sValue] : letter.headers)
        std::printf("%s: %s\n", sName.c_str(), sValue.c_str());
    for (std::size_t i = 0; i < letter.sContent.size(); ++i)
        std::printf("%s%02x", i % 16 == 0 ? "\n" : " ", static_cast<unsigned char>(letter.sContent[i]));
    std::printf("\n");
    return exitDone;
}

int resendDeadLetter(const RelaySettings& settings, std::uint64_t nPosition) {
    NatsAdministration engine(settings.access);
    const DeadLetter letter = engine.deadLetter(nPosition);
    // Hosts write letters themselves, and must have nothing sent to others that they may not notify.
    const std::string sSubject = letter.header("Vorn-Subject");
    if (!sSubject.starts_with("vorn.to." + letter.sHost + ".")) {
        std::fprintf(stderr, "vornnet relay: it is not for the host that has written it\n");
        return exitRefused;
    }
    const std::string sId = "dead." + std::to_string(nPosition); // for a second time, when dropping it fails
    engine.publish(messageTo(sSubject, settings.access.sHost, givenIdOf(settings.access.sHost, sId),
                             std::string(letter.sContent)));
    engine.dropDeadLetter(nPosition);
    return exitDone;
}

int dropDeadLetter(const RelaySettings& settings, std::uint64_t nPosition) {
    NatsAdministration(settings.access).dropDeadLetter(nPosition);
    return exitDone;
}

int dropDeadLetters(const RelaySettings& settings) {
    NatsAdministration(settings.access).dropDeadLetters();
    return exitDone;
}

int notifyLease(const std::string& sHost, std::uint32_t nLease, const std::vector<std::string>& values) {
    if (sendThrough("relay-" + hostToken(sHost), exchangeOf(nLease, values)))
        return exitDone;
    std::fprintf(stderr, "vornnet relay: the relay of this host does not take it\n");
    return exitRefused;
}

int notifyLeaseOnce(const RelaySettings& settings, const std::string& sHost, std::uint32_t nLease,
                    const std::vector<std::string>& values, const std::string& sId) {
    const Engine::Message message =
        messageTo(subjectOfLease(hostToken(sHost), nLease), settings.access.sHost,
                  givenIdOf(settings.access.sHost, sId), exchangeOf(nLease, values));
    if (!NatsAdministration(settings.access).publish(message))
        std::printf("stored before\n");
    return exitDone;
}

} // namespace VornRelay
