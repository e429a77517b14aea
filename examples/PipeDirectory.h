// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_PIPEDIRECTORY_H
#define EXAMPLES_PIPEDIRECTORY_H

#include <VornPipeServer.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

namespace Example {

/**
 * Checks whether this process can create pipes, and prints one line if it cannot. Call it first: the library
 * never creates the directory, and without it the constructor of a callback sink never returns.
 */
inline bool hasPipeDirectory(const char* sProgram) {
    const std::string sDirectory = VornNet::VornPipeServer::getFullPipeName("");
    if (access(sDirectory.c_str(), W_OK | X_OK) == 0)
        return true;
    const int nError = errno;
    std::fprintf(stderr, "%s: pipe directory %s: %s; the chapter \"Installing\" tells how to set it up\n",
                 sProgram, sDirectory.c_str(), std::strerror(nError));
    return false;
}

} // namespace Example

#endif
