// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_RELAYLOG_H
#define VORNRELAY_RELAYLOG_H

#include <atomic>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>

namespace VornRelay {

/** How much is told on standard error: 0 failures, 1 also what an operator should look at, 2 also changes. */
enum class LogLevel { failure, warning, change };

/** The most that is written; read by all threads. */
inline std::atomic<int> g_nLogLevel{static_cast<int>(LogLevel::change)};

/** Writes a line to standard error, with the mark by which the service manager knows how grave it is. */
inline void logLine(LogLevel level, const std::string& sText) {
    constexpr int cMarks[] = {3, 4, 6};
    if (static_cast<int>(level) <= g_nLogLevel.load(std::memory_order_relaxed))
        std::fprintf(stderr, "<%d>%s\n", cMarks[static_cast<int>(level)], sText.c_str());
}

/** A line that says what goes on and on, and so is written once a minute. */
class RareLine {
public:
    void write(LogLevel level, const std::string& sText) {
        constexpr std::chrono::minutes cPause{1};
        const auto now = std::chrono::steady_clock::now();
        if (m_last && now - *m_last < cPause)
            return;
        m_last = now;
        logLine(level, sText);
    }

private:
    std::optional<std::chrono::steady_clock::time_point> m_last;
};

} // namespace VornRelay

#endif
