// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Watches a directory and notifies every subscribed client of what happens to its files; the same as
// service.cpp with the classes of libvornnet alone, for clients that are given.
//
// There are two threads. The desk waits at the service's own pipe for clients that subscribe or leave. The
// main thread waits for events and for the signal to end, and sends the notifications. Both use the library's
// registry.

#include "DirectoryWatch.h"
#include "Program.h"
#include "SubscriptionDesk.h"
#include "Subscriptions.h"

#include <VornException.h>
#include <VornSleep.h>

#include <csignal>
#include <cstdio>
#include <deque>
#include <filesystem>

#include <poll.h>
#include <sys/signalfd.h>

using namespace Example;
using namespace VornNet;

namespace {

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
        // Not back to back: a sink that is about to open its server again may take the connection, or over
        // UDP the datagram, and discard it silently. The pause makes that rare.
        VornSleep(cPause);
    }
}

} // namespace

int main(int argc, char** argv) {
    // Before anything else: writing to a client that has just closed raises SIGPIPE, which by default ends
    // the process. Every service meets such a client sooner or later. Once the signal is ignored, the failed
    // write throws an exception like any other.
    std::signal(SIGPIPE, SIG_IGN);
    if (const int nStatus = prepare("bare_service", "service", argc, argv); nStatus != 0)
        return nStatus;

    const sigset_t ends = blockEndSignals(); // before the desk's thread starts, which inherits the mask
    const int signals = signalfd(-1, &ends, SFD_CLOEXEC);
    Subscriptions subscriptions;
    int nStatus = 0;
    try {
        const std::filesystem::path directory = std::filesystem::canonical(argv[1]);
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
