// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_STANDARDERROR_H
#define VORNSUPPORT_STANDARDERROR_H

#include "VornString.h"

#include <sys/types.h>

namespace VornSupport {

/** Where the logger's default output goes. Not installed. One thread at a time uses it. */
class StandardError {
public:
    /** Takes what has the number of standard error now for standard error. */
    void adopt();

    /**
     * Writes a line with its line end. What standard error does not take within a second is lost, and what
     * was written of it is ended, so that the next one begins on a line of its own.
     */
    void writeLine(const VornString& line);

private:
    bool isThere() const;

    bool m_isOpen = false; // of what was adopted
    dev_t m_device = 0;
    ino_t m_file = 0;
    bool m_isWithinLine = false; // a line was begun and not ended
};

} // namespace VornSupport

#endif
