// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ConnectionTestTools.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include <sys/resource.h>

namespace VornTest {

namespace {

long statusKiB(const std::string& label) {
    const std::string status = readTextFile("/proc/self/status");
    return std::strtol(status.c_str() + status.find(label) + label.size(), nullptr, 10);
}

} // namespace

void limitMemory(long bytes) {
    if (underSanitizer)
        return;
    const auto most = static_cast<rlim_t>(statusKiB("VmSize:") * 1024 + bytes);
    const rlimit limit = {most, most};
    if (::setrlimit(RLIMIT_AS, &limit) != 0)
        throw std::system_error(errno, std::generic_category(), "setrlimit(RLIMIT_AS)");
}

long peakResidentKiB() {
    return statusKiB("VmHWM:");
}

long residentKiB() {
    return statusKiB("VmRSS:");
}

} // namespace VornTest
