// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Runs a command where the documents' commands may do what they say: in the tests' sandbox, with the group
// and the pipe directory that the packages create.

#include "Sandbox.h"

#include <cstdio>

#include <sys/stat.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: docs_sandbox COMMAND [ARGUMENT...]\n");
        return 2;
    }
    VornTest::enterSandbox();
    VornTest::useGroupFile("root:x:0:\nvorn:x:0:\n");
    if (chmod(VornTest::pipeDirectory(), 01770) != 0) { // as the packages create it
        std::perror(VornTest::pipeDirectory());
        return 2;
    }
    execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    return 127;
}
