// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_RECORDTRACE_H
#define VORNTOOL_RECORDTRACE_H

#include "TracedLibrary.h"

#include <optional>
#include <string>
#include <string_view>

namespace VornTool {

/** A log record of another process. */
struct TracedRecord {
    double time = 0; // seconds of the monotonic clock
    int thread = 0;
    int level = 0;
    std::string text;
};

/**
 * The kernel's trace of the probe "record" in one process, in a buffer of its own, while it exists.
 *
 * What a trace of an earlier process with the same id has left, one that was killed, is replaced.
 */
class RecordTrace {
public:
    /** @throws ToolError when the kernel has no tracing, or not for this user */
    RecordTrace(pid_t process, const TracedLibrary& library);
    ~RecordTrace();
    RecordTrace(const RecordTrace&) = delete;
    RecordTrace& operator=(const RecordTrace&) = delete;

    /** @return a descriptor to be polled for lines. */
    int descriptor() const { return m_lines; }

    /** @return the lines that wait, possibly with a part of one at the end; does not block. */
    std::string read() const;

    /** @return the record that a line tells of, or nothing when it tells of none. */
    static std::optional<TracedRecord> parse(std::string_view line);

    /** Removes the trace from the kernel, which keeps it otherwise; also for a forced end. */
    void remove() const;

private:
    std::string m_event;    // as in "vornnet/record_1"
    std::string m_instance; // its directory
    int m_lines = -1;
};

} // namespace VornTool

#endif
