// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0

// Watches a directory and tells every client that has subscribed what happens to its files.
//
// Two threads: the desk waits at the service's own pipe for clients that subscribe or leave; the main thread
// waits for events and for the signal to end, and sends the notifications. They meet in the library's
// registry.

#include "DirectoryWatch.h"
#include "PipeDirectory.h"
#include "SubscriptionDesk.h"
#include "Subscriptions.h"

#include <VornException.h>
#include <VornLogging.h>
#include <VornSleep.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <deque>
#include <filesystem>

#include <poll.h>
#include <sys/signalfd.h>

using namespace Example;

namespace {

/** @return a descriptor that poll(2) finds readable when the service is told to end */
int blockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

/** @return true when told to end, false when there is nothing left to watch */
bool tellEvents(DirectoryWatch& watch, int signals, Subscriptions& subscriptions) {
    constexpr int cPause = 20;
    std::deque<FileEvent> events;
    for (;;) {
        pollfd entries[] = {{signals, POLLIN, 0}, {watch.handle(), POLLIN, 0}};
        poll(entries, 2, events.empty() ? -1 : 0);
        if (entries[0].revents != 0)
            return true;
        if (entries[1].revents != 0 && !watch.readInto(events))
            return false;
        if (events.empty())
            continue;
        subscriptions.notifyAll(events.front());
        events.pop_front();
        // Not back to back: a sink that is about to re-open its server may take the connection, or over UDP
        // the datagram, and throw it away unread, without a word to the sender. The pause makes that rare.
        VornSleep(cPause);
    }
}

} // namespace

int main(int argc, char** argv) {
    // Before anything else: writing to a client that has just closed raises SIGPIPE, whose default ends the
    // process. Every service meets such a client sooner or later; ignored, it is an exception like the
    // others.
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    CLI::App app("Watches a directory and tells its clients what happens to the files");
    std::string sDirectory;
    int nLogLevel = VornLogging::cOff;
    app.add_option("directory", sDirectory, "the directory")->required()->check(CLI::ExistingDirectory);
    app.add_option("--log-level", nLogLevel, "the library's log on standard error, -1 (off) to 9");
    CLI11_PARSE(app, argc, argv);
    VornLogging::getInstance().setLogLevel(nLogLevel);
    if (!hasPipeDirectory("service"))
        return 1;

    const int signals = blockEndSignals(); // before the desk's thread, which inherits it
    Subscriptions subscriptions;
    int nStatus = 0;
    try {
        const std::filesystem::path directory = std::filesystem::canonical(sDirectory);
        DirectoryWatch watch(directory);
        const SubscriptionDesk desk(directory, subscriptions);
        std::printf("service: watching %s\n", directory.c_str());
        if (!tellEvents(watch, signals, subscriptions)) {
            std::fprintf(stderr, "service: %s is gone\n", directory.c_str());
            nStatus = 1;
        }
    } catch (const VornException& e) {
        std::fprintf(stderr, "service: %s (%d)\n", e.getText().c_str(), e.getCode());
        nStatus = 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "service: %s\n", e.what());
        nStatus = 1;
    }
    close(signals);
    subscriptions.printTable();
    return nStatus;
}
