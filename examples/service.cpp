// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Watches a directory and notifies every subscribed client of what happens to its files.
//
// There are two threads. The desk waits at the service's own pipe for clients that subscribe or leave. The
// main thread waits for events and for the signal to end, and posts each event to the dispatcher, which
// delivers it, tries again where that is needed, and tells what became of it.

#include "Audience.h"
#include "DirectoryWatch.h"
#include "Program.h"
#include "SubscriptionDesk.h"

#include <VornException.h>

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
bool tellEvents(DirectoryWatch& watch, int signals, Audience& audience) {
    for (;;) {
        pollfd entries[] = {{signals, POLLIN, 0}, {watch.handle(), POLLIN, 0}};
        poll(entries, 2, -1);
        if (entries[0].revents != 0)
            return true;
        std::deque<FileEvent> events;
        if (entries[1].revents != 0 && !watch.readInto(events))
            return false;
        for (const FileEvent& event : events)
            audience.notifyAll(event);
    }
}

} // namespace

int main(int argc, char** argv) {
    // Before anything else: answering a client that has just closed raises SIGPIPE, which by default ends the
    // process.
    std::signal(SIGPIPE, SIG_IGN);
    if (const int nStatus = prepare("service", "service", argc, argv); nStatus != 0)
        return nStatus;

    const sigset_t ends = blockEndSignals(); // before the desk's thread starts, which inherits the mask
    const int signals = signalfd(-1, &ends, SFD_CLOEXEC);
    int nStatus = 0;
    try {
        Audience audience;
        const std::filesystem::path directory = std::filesystem::canonical(argv[1]);
        {
            DirectoryWatch watch(directory);
            const SubscriptionDesk desk(directory, audience);
            std::printf("service: watching %s\n", directory.c_str());
            if (!tellEvents(watch, signals, audience)) {
                std::fprintf(stderr, "service: %s is gone\n", directory.c_str());
                nStatus = 1;
            }
        }
        audience.stop();
        audience.printTable();
    } catch (const VornException& e) {
        std::fprintf(stderr, "service: %s (%d)\n", e.getText().c_str(), e.getCode());
        nStatus = 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "service: %s\n", e.what());
        nStatus = 1;
    }
    close(signals);
    return nStatus;
}
