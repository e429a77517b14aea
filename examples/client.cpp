// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Subscribes to the service's events and prints each as it arrives.
//
// The sink stays open: events that come without a pause wait, and none is lost. The environment variable
// QUORAX_CALLB_CONN_TYPE chooses the transport: "pipe", "socket" (TCP) or "udp". The service needs nothing
// but the sink's address and the callback id.

#include "EventPrinter.h"
#include "FileEvent.h"
#include "Program.h"
#include "ServiceRequest.h"

#include <VornException.h>
#include <VornSteadySink.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

using namespace Example;
using namespace VornNet;

int main(int argc, char** argv) {
    // Writing to a peer that has just closed raises SIGPIPE, which by default ends the process.
    std::signal(SIGPIPE, SIG_IGN);
    if (const int nStatus = prepare("client", "client", argc, argv); nStatus != 0)
        return nStatus;

    const sigset_t signals = blockEndSignals();

    int nStatus = 0;
    const VornSmartPointer<EventPrinter> spPrinter = new EventPrinter(0);
    try {
        const VornString sWatched = std::filesystem::canonical(argv[1]);
        VornSteadySink::Options options;
        // Only a pipe has to move, when somebody has taken its file away.
        options.onAddressChange = [&](const VornString& sAddress) {
            ask(cWatchService, sAddress, spPrinter->getId(), sWatched);
            std::printf("client: moved to %s\n", sAddress.c_str());
        };
        VornSteadySink sink("client", options);
        sink.getCallbackContainer().add(&*spPrinter);
        ask(cWatchService, sink.getCallbackAddress(), spPrinter->getId(), sWatched);
        std::printf("client: subscribed as %s\n", sink.getCallbackAddress().c_str());
        int nSignal = 0;
        sigwait(&signals, &nSignal);
        ask(cUnwatchService, sink.getCallbackAddress(), spPrinter->getId(), sWatched);
    } catch (const VornException& e) {
        std::fprintf(stderr, "client: %s (%d)\n", e.getText().c_str(), e.getCode());
        nStatus = 1;
    }
    std::printf("client: received %d events\n", spPrinter->received());
    return nStatus;
}
