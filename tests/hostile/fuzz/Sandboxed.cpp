// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The start of the targets that need a pipe directory and ports of their own.
#include "Sandbox.h"

#include <csignal>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    VornTest::enterSandbox();
    std::signal(SIGPIPE, SIG_IGN);
    return 0;
}
