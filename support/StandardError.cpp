// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "StandardError.h"

#include "SystemCalls.h"

#include <cerrno>
#include <chrono>
#include <string_view>

namespace VornSupport {

namespace {

using Clock = std::chrono::steady_clock;

/** @return whether there is room for some more before @p end. */
bool awaitRoom(Clock::time_point end) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0)
            return false;
        pollfd entry{STDERR_FILENO, POLLOUT, 0};
        const int count = System::poll(&entry, 1, static_cast<int>(left));
        if (count != -1 || errno != EINTR)
            return count == 1;
    }
}

/** @return how much was written: all, unless the output failed or had no room until @p end. */
std::size_t writeAll(std::string_view data, Clock::time_point end) {
    constexpr int cMostInterruptions = 10'000; // in a row: other threads wait for the lock
    std::size_t total = 0;
    int nInterruptions = 0;
    while (total < data.size()) {
        const ssize_t count = System::write(STDERR_FILENO, data.data() + total, data.size() - total);
        const int nError = errno;
        if (count > 0) {
            total += static_cast<std::size_t>(count);
            nInterruptions = 0;
        } else {
            const bool bGoesOn = count == -1 && ((nError == EINTR && ++nInterruptions < cMostInterruptions) ||
                                                 (nError == EAGAIN && awaitRoom(end)));
            if (!bGoesOn)
                break;
        }
    }
    return total;
}

} // namespace

void StandardError::adopt() {
    struct stat file {};

    m_isOpen = System::fstat(STDERR_FILENO, &file) == 0;
    m_device = file.st_dev;
    m_file = file.st_ino;
    m_isWithinLine = false;
}

void StandardError::writeLine(const VornString& line) {
    constexpr std::chrono::seconds cLongestWait(1);
    constexpr std::string_view cLineEnd = "\n";
    if (!isThere())
        return;
    const Clock::time_point end = Clock::now() + cLongestWait;
    if (m_isWithinLine && writeAll(cLineEnd, end) == 0)
        return;
    m_isWithinLine = true; // should the thread be cancelled in the midst of it
    const std::size_t written = writeAll(line, end);
    const bool bIsCut = written != 0 && written != line.size();
    m_isWithinLine = bIsCut && writeAll(cLineEnd, end) == 0;
}

/**
 * Where standard error is closed, the next thing to be opened gets its number. A file, a pipe or a terminal
 * is what a program puts there on purpose; a socket is more likely a connection, whose peer must not get to
 * read records.
 */
bool StandardError::isThere() const {
    struct stat now {};

    if (!m_isOpen || System::fstat(STDERR_FILENO, &now) != 0)
        return false;
    return !S_ISSOCK(now.st_mode) || (now.st_dev == m_device && now.st_ino == m_file);
}

} // namespace VornSupport
