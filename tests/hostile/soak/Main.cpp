// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The processes of a soak, started by soak.py: soak ROLE HISTORY ARGUMENTS...

#include "History.h"
#include "Roles.h"

#include <VornLogging.h>

#include <cstdio>
#include <exception>

#include <sys/prctl.h>

namespace Soak {

sigset_t blockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

} // namespace Soak

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() < 2) {
        std::fprintf(stderr, "usage: soak ROLE HISTORY ARGUMENTS...\n");
        return 2;
    }
    VornSupport::VornLogging::getInstance().setLogLevel(VornSupport::VornLogging::cOff);
    try {
        Soak::History::open(words[1]);
        const Soak::Arguments arguments(words.begin() + 2, words.end());
        if (words[0] == "service")
            return Soak::runService(arguments);
        if (words[0] == "client")
            return Soak::runClient(arguments);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "soak: %s\n", e.what());
    }
    return 2;
}
