// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_PIPEDIRECTORY_H
#define EXAMPLES_PIPEDIRECTORY_H

#include <VornPipeServer.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace Example {

using namespace VornNet;

/**
 * Looks whether this process can make pipes, and says in one line what is missing and how to make it. Asked
 * first thing, because the library never makes the directory, and a callback sink without it waits for ever.
 */
inline bool hasPipeDirectory(const char* sProgram) {
    const std::string sDirectory = VornPipeServer::getFullPipeName("");
    if (access(sDirectory.c_str(), W_OK | X_OK) == 0)
        return true;
    const int nError = errno;
    std::fprintf(stderr, "%s: pipe directory %s: %s; make it: sudo install -d -m 0770 -o \"$USER\" %s\n",
                 sProgram, sDirectory.c_str(), std::strerror(nError), sDirectory.c_str());
    return false;
}

} // namespace Example

#endif
