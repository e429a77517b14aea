// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The sink of each kind: its start, one delivery and its end. It makes its calls on two threads, so what this
// file does on its own account it does where faults are not injected.

#include "SinkRun.h"

#include <cerrno>
#include <cstring>

using namespace VornNet;

namespace VornTest {

namespace {

using Kind = SinkRun::Kind;

/**
 * The sink lives on and delivers in the end; the code of the failure is what its thread reports. The first
 * time, the constructor waits for as long as the failure lasts.
 */
Promise survives(const CallFault& fault) {
    const int code = fault.error == EADDRINUSE ? 0 : fault.error;
    return {{"", code}, 0, fault.isLasting, fault.isLasting && fault.nth == 1};
}

/** A wait of a sink that has delivered nothing yet, or has delivered already. */
Promise goesOn(const CallFault& fault, int code) {
    const bool isBefore = fault.nth == 1;
    return {{isBefore && fault.isLasting ? "not delivered" : "", code}, 0, fault.isLasting};
}

bool endsLoop(int error) {
    return error == ECONNRESET || error == EINTR;
}

/** Made before the sink's loop, by the pipe server's constructor; the second time within the loop. */
Rule ofPipeInit(const std::string& what, int code = 0) {
    return [what, code](const CallFault& fault) {
        const int reported = code != 0 ? code : fault.error;
        if (fault.nth == 1) // the constructor waits forever
            return Promise{{"VornPipeServer::init: failed to " + what, reported}, 0, true};
        if (reported == EADDRINUSE)
            return Promise{{"cannot establish connection", 0}};
        return Promise{{"", reported}, 0, fault.isLasting};
    };
}

/** The handle, then the content that the callback reads; the callback's look at the end is of no account. */
Promise ofRead(const CallFault& fault) {
    if (fault.nth > 2)
        return {};
    if (endsLoop(fault.error))
        return {{"connection closed", 0}};
    return {{fault.isLasting ? "not delivered" : "", fault.error}, 0, fault.isLasting};
}

Promise ofPipeAccept(const CallFault& fault) {
    if (endsLoop(fault.error))
        return {{"connection closed", 0}};
    return goesOn(fault, fault.error);
}

Rule ofWait(std::initializer_list<int> quiet) {
    return [wait = endsWait(quiet)](const CallFault& fault) {
        return wait(fault).outcome.text.empty() || wait(fault).isEndless ? goesOn(fault, 0)
                                                                         : Promise{{"NULL returned", 0}};
    };
}

/** Which of its sockets is the server's: every delivery's close sends a datagram of its own to the server. */
Promise ofUdpSocket(const CallFault& fault) {
    const bool isServers = fault.nth == 1 || fault.nth == 3;
    const bool reachesServers = isServers || (fault.nth == 2 && fault.isLasting);
    return reachesServers ? survives(fault) : Promise{};
}

/** Without an address nobody can be told where the sink is; over TCP not even the constructor returns. */
Rule ofAddress(int code) {
    return [code](const CallFault&) { return Promise{{"not delivered", code}, 0, true}; };
}

/** The end waits for as long as the failure lasts. */
Promise holdsTheEnd(const CallFault& fault) {
    return {{}, 0, fault.isLasting, fault.isLasting};
}

Scenario sinkScenario(Kind kind, std::vector<FailingCall> calls) {
    Scenario scenario;
    scenario.name = SinkRun::nameOf(kind) + " sink";
    scenario.run = [kind](const Stage& stage) { return SinkRun(kind).deliverOne(stage); };
    scenario.calls = std::move(calls);
    for (const char* ignored : {"fcntl", "close"})
        scenario.calls.push_back({ignored, isIgnored()});
    scenario.calls.push_back({"usleep", isIgnored(), true});
    scenario.interrupt = SinkRun::interrupt;
    scenario.isOfAllThreads = true;
    return scenario;
}

/** Ended while a client is connected that sends nothing. */
Scenario silentScenario(Kind kind) {
    Scenario scenario;
    scenario.name = SinkRun::nameOf(kind) + " sink with a silent client";
    scenario.run = [kind](const Stage& stage) { return SinkRun(kind).endUnderSilentClient(stage); };
    scenario.calls = {{"shutdown", [](const CallFault& fault) {
                           return Promise{{"not delivered", ENOTCONN}, 0, fault.isLasting, fault.isLasting};
                       }}};
    scenario.undisturbed = {"not delivered", ENOTCONN};
    scenario.interrupt = SinkRun::interrupt;
    scenario.isOfAllThreads = true;
    return scenario;
}

Scenario pipeSink() {
    return sinkScenario(Kind::pipe, {{"pipe", ofPipeInit("create pipe.")},
                                     {"socket", ofPipeInit("create pipe.")},
                                     {"unlink", ofPipeInit("prepare pipe.", EADDRINUSE)},
                                     {"fchmod", isIgnored()},
                                     {"bind", ofPipeInit("prepare pipe.")},
                                     {"listen", ofPipeInit("listen on bound pipe.")},
                                     {"chmod", isIgnored()},
                                     {"select", [](const CallFault& fault) { return goesOn(fault, 0); }},
                                     {"accept", ofPipeAccept},
                                     {"recv", ofRead},
                                     {"poll", holdsTheEnd},
                                     {"write", holdsTheEnd}});
}

Scenario tcpSink() {
    return sinkScenario(Kind::socket, {{"gethostbyname_r", ofAddress(EADDRNOTAVAIL)},
                                       {"socket", survives},
                                       {"bind", survives},
                                       {"getsockname", survives},
                                       {"listen", survives},
                                       {"accept", ofWait({EINTR, EBADF, ENONET, ENOTSOCK, EHOSTDOWN})},
                                       {"recv", ofRead},
                                       {"shutdown", holdsTheEnd},
                                       {"getsockopt", isIgnored()}});
}

Scenario udpSink() {
    return sinkScenario(Kind::udp,
                        {{"gethostbyname_r", ofAddress(0)},
                         {"socket", ofUdpSocket},
                         {"bind", survives},
                         {"getsockname", survives},
                         {"recvfrom", ofWait({EINTR, EBADF, ENONET, ENOTSOCK, ECONNRESET, EHOSTDOWN})},
                         {"setsockopt", isIgnoredAndLeaks()},
                         {"sendto", isIgnoredAndLeaks()},
                         {"shutdown", holdsTheEnd}});
}

} // namespace

std::vector<Scenario> sinkScenarios() {
    return {pipeSink(), tcpSink(), udpSink(), silentScenario(Kind::pipe), silentScenario(Kind::socket)};
}

} // namespace VornTest
