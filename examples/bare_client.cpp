// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Subscribes to the service's events and prints each as it arrives; the same as client.cpp with the classes
// of libvornnet alone, for services that are given.
//
// The sink is a thread with its own server. The environment variable QUORAX_CALLB_CONN_TYPE chooses the
// transport: "pipe", "socket" (TCP) or "udp". The service needs nothing but the sink's address and the
// callback id.

#include "EventPrinter.h"
#include "Program.h"
#include "ServiceRequest.h"

#include <VornException.h>
#include <VornLibraryCallbackSink.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

using namespace Example;
using namespace VornNet;

namespace {

/** Prints each event, whatever its sender does. */
class CarefulPrinter : public EventPrinter {
public:
    using EventPrinter::EventPrinter;

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        try {
            EventPrinter::doCallback(spConnection);
            awaitEnd(*spConnection);
        } catch (const VornException& e) {
            // The sender broke off. If the exception left this function, the sink would take it for a failure
            // of its own, and code 104 (connection reset) would end it.
            std::fprintf(stderr, "client: incomplete event: %s (%d)\n", e.getText().c_str(), e.getCode());
        }
    }

private:
    // The side that closes a TCP connection first keeps its port busy for a minute. If that were this side,
    // the sink could not open its port again: it would move to the next one, and the service would still
    // connect to the old one.
    static void awaitEnd(VornConnection& connection) {
        char rest = 0;
        long nError = 0;
        while (connection.receive(&rest, 1, &nError, true) > 0) {
        }
    }
};

void stayUntilSignalled(const sigset_t& signals, VornLibraryCallbackSink& sink, long hCallback,
                        const VornString& sDirectory) {
    VornString sAddress = sink.getCallbackAddress();
    ask(cWatchService, sAddress, hCallback, sDirectory);
    std::printf("client: subscribed as %s\n", sAddress.c_str());
    const timespec pause = {0, 200'000'000};
    while (sigtimedwait(&signals, nullptr, &pause) == -1) {
        // A TCP or UDP sink moves when another process takes its port between two events. Nobody is told.
        const VornString sPresent = sink.getCallbackAddress();
        if (sPresent == sAddress)
            continue;
        ask(cUnwatchService, sAddress, hCallback, sDirectory);
        ask(cWatchService, sPresent, hCallback, sDirectory);
        std::printf("client: moved to %s\n", sPresent.c_str());
        sAddress = sPresent;
    }
    // Necessary, because a service never notices that a UDP client is gone.
    ask(cUnwatchService, sAddress, hCallback, sDirectory);
}

} // namespace

int main(int argc, char** argv) {
    // Writing to a peer that has just closed raises SIGPIPE, which by default ends the process.
    std::signal(SIGPIPE, SIG_IGN);
    if (const int nStatus = prepare("bare_client", "client", argc, argv); nStatus != 0)
        return nStatus;

    // Before the sink is created: its thread inherits the mask, and a signal that is handled on that thread
    // would end a TCP or UDP sink.
    const sigset_t signals = blockEndSignals();

    VornLibraryCallbackSink sink("client");
    VornCallbackContainer& callbacks = sink.getCallbackContainer();
    const VornSmartPointer<CarefulPrinter> spPrinter = new CarefulPrinter(callbacks.getNewId());
    callbacks.add(&*spPrinter);
    int nStatus = 0;
    try {
        const VornString sWatched = std::filesystem::canonical(argv[1]);
        stayUntilSignalled(signals, sink, spPrinter->getId(), sWatched);
    } catch (const VornException& e) {
        std::fprintf(stderr, "client: %s (%d)\n", e.getText().c_str(), e.getCode());
        nStatus = 1;
    }
    callbacks.remove(spPrinter->getId());
    std::printf("client: received %d events\n", spPrinter->received());
    return nStatus;
}
