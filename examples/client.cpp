// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0

// Subscribes to the service's events and prints each as it arrives.
//
// The sink is a thread with a server of its own, whose kind (pipe, TCP, UDP) the environment variable
// QUORAX_CALLB_CONN_TYPE chooses ("pipe", "socket", "udp"). Its address and the callback's id are all that
// the service needs to reach us.

#include "FileEvent.h"
#include "PipeDirectory.h"
#include "TimeLimit.h"

#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornLogging.h>
#include <VornPipeConnection.h>

#include <CLI/CLI.hpp>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>

using namespace Example;

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
            // A sender that broke off. Left to the sink, the code would count as the sink's own failure, and
            // 104 (connection reset) ends it.
            std::fprintf(stderr, "client: incomplete event: %s (%d)\n", e.getText().c_str(), e.getCode());
        }
    }

private:
    // The side that closes a TCP connection first keeps its port busy for a minute. Were it this one, the
    // sink could not open its port again and would move to the next, and the service would knock at the old
    // one.
    static void awaitEnd(VornConnection& connection) {
        char rest = 0;
        long nError = 0;
        while (connection.receive(&rest, 1, &nError, true) > 0) {
        }
    }

    // A file's name may hold anything, also what a terminal takes for a command.
    static VornString printable(VornString sText) {
        for (char& character : sText) {
            if (static_cast<unsigned char>(character) < ' ' || character == '\x7f')
                character = '?';
        }
        return sText;
    }

    std::atomic<int> m_nReceived = 0; // counted on the sink's thread, read by main()
};

/** Asks the service to begin or to end telling us of the directory; throws when it cannot or will not. */
void ask(const char* sService, const VornString& sAddress, long hCallback, const VornString& sDirectory) {
    const TimeLimit limit(std::chrono::seconds(5));
    VornPipeConnection connection(cPipeName);
    connection.setServiceName(sService);
    connection.transfer(sAddress);
    connection.transfer(hCallback);
    connection.transfer(sDirectory);
    // The acknowledgement token is the shorts 1 and 0, the error token 1 and -1.
    connection.receiveShort();
    if (connection.receiveShort() != 0)
        throw VornException("the service refuses " + sDirectory, 0);
}

void stayUntilSignalled(const sigset_t& signals, VornLibraryCallbackSink& sink, long hCallback,
                        const VornString& sDirectory) {
    VornString sAddress = sink.getCallbackAddress();
    ask(cWatchService, sAddress, hCallback, sDirectory);
    std::printf("client: subscribed as %s\n", sAddress.c_str());
    const timespec pause = {0, 200'000'000};
    while (sigtimedwait(&signals, nullptr, &pause) == -1) {
        // A TCP or UDP sink moves when another process takes its port between two events, and tells nobody.
        const VornString sPresent = sink.getCallbackAddress();
        if (sPresent == sAddress)
            continue;
        ask(cUnwatchService, sAddress, hCallback, sDirectory);
        ask(cWatchService, sPresent, hCallback, sDirectory);
        std::printf("client: moved to %s\n", sPresent.c_str());
        sAddress = sPresent;
    }
    // Said aloud, because a service never notices that a client on UDP is gone.
    ask(cUnwatchService, sAddress, hCallback, sDirectory);
}

} // namespace

int main(int argc, char** argv) {
    // Writing to a peer that has just closed raises SIGPIPE, whose default ends the process.
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    CLI::App app("Prints what happens to the files of a directory that the service watches");
    std::string sDirectory;
    int nLogLevel = VornLogging::cOff;
    app.add_option("directory", sDirectory, "the directory")->required()->check(CLI::ExistingDirectory);
    app.add_option("--log-level", nLogLevel, "the library's log on standard error, -1 (off) to 9");
    CLI11_PARSE(app, argc, argv);
    VornLogging::getInstance().setLogLevel(nLogLevel);
    if (!hasPipeDirectory("client"))
        return 1;

    // Before the sink is made, whose thread inherits it: a signal handled there would end a TCP or UDP sink.
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
        const VornString sWatched = std::filesystem::canonical(sDirectory);
        stayUntilSignalled(signals, sink, spPrinter->getId(), sWatched);
    } catch (const VornException& e) {
        std::fprintf(stderr, "client: %s (%d)\n", e.getText().c_str(), e.getCode());
        nStatus = 1;
    }
    callbacks.remove(spPrinter->getId());
    std::printf("client: received %d events\n", spPrinter->received());
    return nStatus;
}
