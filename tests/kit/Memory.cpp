// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Memory.h"

#include "Posix.h"
#include "Sanitizer.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include <sys/resource.h>

namespace VornTest {

namespace {

long statusKiB(const std::string& label) {
    const std::string status = readTextFile("/proc/self/status");
    return std::strtol(status.c_str() + status.find(label) + label.size(), nullptr, 10);
}

} // namespace

std::vector<std::string> scarceMemoryEnvironment() {
    std::vector<std::string> result;
    for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
        const char* old = std::getenv(name);
        const std::string options = old != nullptr ? std::string(old) + ":" : std::string();
        result.push_back(std::string(name) + "=" + options +
                         "allocator_may_return_null=1:max_allocation_size_mb=512");
    }
    return result;
}

void limitMemory() {
    if (underSanitizer)
        return;
    const auto most = static_cast<rlim_t>((statusKiB("VmSize:") + 512L * 1024) * 1024);
    const rlimit limit = {most, most};
    if (::setrlimit(RLIMIT_AS, &limit) != 0)
        throw std::system_error(errno, std::generic_category(), "setrlimit(RLIMIT_AS)");
}

PeakMemory::PeakMemory() {
    std::ofstream("/proc/self/clear_refs") << 5; // what the process had at most is forgotten
    m_atFirst = statusKiB("VmHWM:");
}

long PeakMemory::grownKiB() const {
    return statusKiB("VmHWM:") - m_atFirst;
}

} // namespace VornTest
