// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_PROGRAM_H
#define EXAMPLES_PROGRAM_H

#include "PipeDirectory.h"

#include <VornLogging.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace Example {

/**
 * Reads DIRECTORY [LOG-LEVEL], the arguments of the programs of the watched directory.
 *
 * @return 0, or the exit status of a program that cannot begin, after it has said why
 */
inline int prepare(const char* sProgram, const char* sRole, int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 2 || argc > 3 || !std::filesystem::is_directory(argv[1])) {
        std::fprintf(stderr, "usage: %s DIRECTORY [LOG-LEVEL]\n", sProgram);
        return 2;
    }
    if (argc == 3) // the library's log on standard error, from 0 to 9
        VornSupport::VornLogging::getInstance().setLogLevel(std::atoi(argv[2]));
    return hasPipeDirectory(sRole) ? 0 : 1;
}

/** Blocks the signals that end a program, on this thread and on those that it starts from now on. */
inline sigset_t blockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

} // namespace Example

#endif
