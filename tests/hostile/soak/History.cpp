// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "History.h"

#include <VornSleep.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace Soak {

namespace {

int historyFile = -1;

int entriesOf(const char* directory) {
    for (;;) {
        std::error_code error;
        const std::filesystem::directory_iterator entries{directory, error};
        if (!error)
            return static_cast<int>(std::distance(begin(entries), end(entries)));
        if (error != std::errc::too_many_files_open)
            throw std::filesystem::filesystem_error("Belongings", error);
        VornSupport::VornSleep(10); // the soak has used the descriptors up, and gives them back
    }
}

/** Nanoseconds of the clock that all processes of one machine share. */
long now() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000L + time.tv_nsec;
}

} // namespace

void History::open(const std::string& path) {
    historyFile = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (historyFile == -1) {
        std::perror(path.c_str());
        std::exit(2);
    }
}

void History::write(const char* format, ...) {
    if (historyFile == -1)
        return;
    std::array<char, 512> line;
    int size = std::snprintf(line.data(), line.size(), "%ld ", now());
    va_list arguments;
    va_start(arguments, format);
    const auto room = line.size() - static_cast<std::size_t>(size) - 1;
    size += std::vsnprintf(line.data() + size, room, format, arguments);
    va_end(arguments);
    if (static_cast<std::size_t>(size) + 1 >= line.size())
        std::abort();
    line[static_cast<std::size_t>(size++)] = '\n';
    // One call, so that lines of several threads do not mix; a history with holes proves nothing.
    if (::write(historyFile, line.data(), static_cast<std::size_t>(size)) != size)
        std::abort();
}

Belongings Belongings::count() {
    // Less the one that the counting itself has open.
    return {entriesOf("/proc/self/fd") - 1, entriesOf("/proc/self/task")};
}

void Belongings::recordIdle() const {
    Belongings found = count();
    for (int i = 0; i < 500 && (found.descriptors != descriptors || found.threads != threads); ++i) {
        VornSupport::VornSleep(10);
        found = count();
    }
    History::write("idle descriptors=%d threads=%d", found.descriptors, found.threads);
}

} // namespace Soak
