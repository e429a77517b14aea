// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Subscribes to the service's events and prints each as it arrives; the same as client.cpp with the classes
// of libvornnet alone, for services that are given.
//
// The sink is a thread with its own server. The environment variable QUORAX_CALLB_CONN_TYPE chooses the
// transport: "pipe", "socket" (TCP) or "udp". The service needs nothing but the sink's address and the
// callback id.

#include "FileEvent.h"
#include "PipeDirectory.h"
#include "ServiceRequest.h"

#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornLogging.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

using namespace Example;
using namespace VornNet;

namespace {

class EventPrinter : public VornNotificationCallback {
public:
    explicit EventPrinter(int nId) : VornNotificationCallback(nId) {}

    int received() const { return m_nReceived; }

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        try {
            const FileEvent event = FileEvent::read(*spConnection);
            awaitEnd(*spConnection);
            ++m_nReceived;
            std::printf("event %d: %s '%s' (%ju bytes)\n", event.getId(), event.verb(),
                        printable(event.name()).c_str(), event.size());
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

    // A file name may contain any byte, including escape sequences for the terminal.
    static VornString printable(VornString sText) {
        for (char& character : sText) {
            if (static_cast<unsigned char>(character) < ' ' || character == '\x7f')
                character = '?';
        }
        return sText;
    }

    std::atomic<int> m_nReceived = 0; // counted on the sink's thread, read by main()
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
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    if (argc < 2 || argc > 3 || !std::filesystem::is_directory(argv[1])) {
        std::fprintf(stderr, "usage: bare_client DIRECTORY [LOG-LEVEL]\n");
        return 2;
    }
    if (argc == 3) // the library's log on standard error, from 0 to 9
        VornLogging::getInstance().setLogLevel(std::atoi(argv[2]));
    if (!hasPipeDirectory("client"))
        return 1;

    // Before the sink is created: its thread inherits the mask, and a signal that is handled on that thread
    // would end a TCP or UDP sink.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    VornLibraryCallbackSink sink("client");
    VornCallbackContainer& callbacks = sink.getCallbackContainer();
    const VornSmartPointer<EventPrinter> spPrinter = new EventPrinter(callbacks.getNewId());
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
