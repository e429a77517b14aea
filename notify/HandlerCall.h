// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_HANDLERCALL_H
#define VORNNOTIFY_HANDLERCALL_H

#include "ThrownText.h"

#include <Cancellation.h>
#include <LogRecord.h>

namespace VornNet {

/**
 * Calls a program's handler. What it throws is logged, except for the cancellation of the thread, which
 * passes.
 * @param text begins the record
 * @return whether it has returned
 */
template <typename Call>
bool callHandler(int nLevel, const char* text, Call&& call) {
    try {
        call();
        return true;
    } catch (...) {
        if (isCancellation())
            throw;
        logRecord(nLevel, text, [] { return describeThrown(); });
    }
    return false;
}

} // namespace VornNet

#endif
