// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0

// Part of each library in builds that measure coverage, and of no other. What a process has run is written
// down by its exit handlers, and each library has counts of its own, which nobody else can reach. A process
// that leaves without these handlers can still leave by quick_exit(): see tests/kit/CoverageExit.cpp.
#include <cstdlib>

extern "C" void __gcov_dump();

namespace {

[[maybe_unused]] const int g_isRegistered = std::at_quick_exit(__gcov_dump);

} // namespace
