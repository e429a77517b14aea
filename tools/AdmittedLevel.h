// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_ADMITTEDLEVEL_H
#define VORNTOOL_ADMITTEDLEVEL_H

#include "TracedLibrary.h"

namespace VornTool {

/**
 * Raises the level of the records that another process writes, while it exists.
 *
 * The records above the program's own level are for tracers only: the library keeps them from the program's
 * handler and from its standard error. A program that sets its level meanwhile takes the raise back.
 */
class AdmittedLevel {
public:
    /** @throws ToolError when the process's memory cannot be written */
    AdmittedLevel(pid_t process, const TracedLibrary& library, int level);
    ~AdmittedLevel();
    AdmittedLevel(const AdmittedLevel&) = delete;
    AdmittedLevel& operator=(const AdmittedLevel&) = delete;

    /** Sets it back, unless the program has set another one meanwhile; also for a forced end. */
    void restore() const;

private:
    bool transfer(bool isRead, int& value, std::uint64_t address) const;

    pid_t m_process;
    std::uint64_t m_address;
    int m_raised;
    int m_before = 0;
    bool m_isRaised = false;
};

} // namespace VornTool

#endif
