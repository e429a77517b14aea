// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_CANCELLATION_H
#define VORNSUPPORT_CANCELLATION_H

#include "SystemCalls.h"

#include <exception>

namespace VornSupport {

/**
 * For handlers that catch everything: whether what they caught is the cancellation of the thread, which
 * unwinds like an exception without being one and has to be passed on. Not installed.
 */
inline bool isCancellation() {
    return std::current_exception() == nullptr;
}

/**
 * Puts the cancellation of the calling thread off to the end of a block: a close that is left half way leaks
 * descriptors, and a destructor that is left ends the process. Not installed.
 */
class CancellationOff {
public:
    CancellationOff() { System::setCancelState(PTHREAD_CANCEL_DISABLE, &m_previous); }

    ~CancellationOff() { System::setCancelState(m_previous, nullptr); }

    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

private:
    int m_previous = PTHREAD_CANCEL_ENABLE;
};

} // namespace VornSupport

#endif
