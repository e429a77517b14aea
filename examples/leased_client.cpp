// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Subscribes to the events of a service on another host, and prints each as it arrives.
//
// It differs from the other client in two things. It reaches the service at a pipe NAME@HOST, from which the
// relays forward. And what it gives the service is not the sink's address and the callback's id, but the pair
// that the relay of this host leases for them. The lease has a name. So the pair stays the same when the
// client ends without leaving and comes back, and what has happened meanwhile comes then; the service notices
// nothing.

#include "EventPrinter.h"
#include "FileEvent.h"
#include "Program.h"
#include "ServiceRequest.h"

#include <VornException.h>
#include <VornPipeConnection.h>
#include <VornSteadySink.h>

#include <csignal>
#include <cstdio>
#include <utility>

using namespace Example;
using namespace VornNet;

namespace {

/** @return the address and the id that a service on another host is given */
std::pair<VornString, long> leaseFor(const char* szName, const VornString& sAddress, long hCallback) {
    const TimeLimit limit(std::chrono::seconds(5));
    VornPipeConnection relay("relay");
    relay.establish();
    relay.transfer(VornString("lease"));
    relay.transfer(VornString(szName));
    relay.transfer(sAddress);
    relay.transfer(hCallback);
    const VornString sLeased = relay.receiveString();
    const long hLeased = relay.receiveLong();
    if (sLeased.empty())
        throw VornException("the relay refuses: " + relay.receiveString(), 0);
    return {sLeased, hLeased};
}

} // namespace

int main(int argc, char** argv) {
    // Writing to a peer that has just closed raises SIGPIPE, which by default ends the process.
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    if (argc != 4) {
        std::fprintf(stderr, "usage: leased_client NAME PIPE-OF-THE-SERVICE DIRECTORY-OF-THE-SERVICE\n");
        return 2;
    }
    if (!hasPipeDirectory("leased_client"))
        return 1;

    const sigset_t signals = blockEndSignals();

    int nStatus = 0;
    const VornSmartPointer<EventPrinter> spPrinter = new EventPrinter(0);
    try {
        VornSteadySink sink("client");
        sink.getCallbackContainer().add(&*spPrinter);
        const auto [sAddress, hCallback] = leaseFor(argv[1], sink.getCallbackAddress(), spPrinter->getId());
        // Nothing happens when it is still subscribed.
        ask(cWatchService, sAddress, hCallback, argv[3], argv[2]);
        std::printf("client: subscribed as %s\n", sAddress.c_str());
        int nSignal = 0;
        sigwait(&signals, &nSignal);
        ask(cUnwatchService, sAddress, hCallback, argv[3], argv[2]);
    } catch (const VornException& e) {
        std::fprintf(stderr, "client: %s (%d)\n", e.getText().c_str(), e.getCode());
        nStatus = 1;
    }
    std::printf("client: received %d events\n", spPrinter->received());
    return nStatus;
}
