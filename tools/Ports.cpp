// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Finding.h"
#include "Output.h"
#include "Sockets.h"

#include <algorithm>

#include <sys/socket.h>

namespace VornTool {

namespace {

/** Why sinks cannot have a port: by whom it is taken, or that nobody has it any more. */
struct Use {
    std::vector<Process> processes;
    bool isTimeWait = false;

    /** @return whether it is as it should be: sinks and services of the library take ports. */
    bool isHealthy() const {
        return std::any_of(processes.begin(), processes.end(),
                           [](const Process& process) { return hasLoaded(process.pid, "libvornnet.so"); });
    }

    std::string describe() const {
        if (!processes.empty())
            return "taken by " + printable(VornTool::describe(processes));
        return isTimeWait ? "in TIME_WAIT" : "taken";
    }
};

Use useOf(int port, Socket::Kind kind, const Sockets& sockets,
          const std::multimap<std::uint32_t, Process>& holders) {
    Use use;
    for (const Socket& socket : sockets.list) {
        if (socket.kind != kind || socket.local.port != port)
            continue;
        use.isTimeWait = use.isTimeWait || socket.state == Socket::State::TimeWait;
        for (const Process& process : holdersOf(holders, socket.number)) {
            const bool isKnown =
                std::any_of(use.processes.begin(), use.processes.end(),
                            [&process](const Process& known) { return known.pid == process.pid; });
            if (!isKnown)
                use.processes.push_back(process);
        }
    }
    return use;
}

Finding judgePorts(bool udp, const std::string& address) {
    constexpr int cFirst = 5023;
    constexpr int cLast = cFirst + 99;
    constexpr int cMostShown = 5;
    const std::string kind = udp ? "UDP" : "TCP";
    const std::string check = udp ? "udp-ports" : "tcp-ports";
    int free = cFirst;
    while (free <= cLast && !canBind(udp ? SOCK_DGRAM : SOCK_STREAM, {address, free}))
        ++free;
    if (free == cFirst)
        return {check, Severity::Ok, "port 5023 is free for a " + kind + " sink", ""};
    const Sockets sockets = listSockets(true);
    const auto holders = listHolders();
    bool isHealthy = true;
    std::string text = "the next " + kind + " sink gets port " + std::to_string(free) + ": ";
    for (int port = cFirst; port < free; ++port) {
        const Use use = useOf(port, udp ? Socket::Kind::Udp : Socket::Kind::Tcp, sockets, holders);
        isHealthy = isHealthy && use.isHealthy();
        if (port < cFirst + cMostShown)
            text += (port > cFirst ? ", " : "") + std::to_string(port) + " is " + use.describe();
        else if (port == cFirst + cMostShown)
            text += ", and so on";
    }
    if (isHealthy)
        return {check, Severity::Ok, text, ""};
    return {check, Severity::Warning,
            text + "; services must use the address that the sink publishes now, and TIME_WAIT ends after a "
                   "minute",
            std::string("ss -anp") + (udp ? "u" : "t") +
                " 'sport >= :5023 and sport < :" + std::to_string(free) + "'"};
}

} // namespace

void checkPorts(Findings& findings, const std::string& address) {
    findings.push_back(judgePorts(false, address));
    findings.push_back(judgePorts(true, address));
}

} // namespace VornTool
