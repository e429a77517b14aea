// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSLEEP_H
#define VORNSLEEP_H

#include "VornSupportExport.h"

namespace VornSupport {

/**
 * Suspends the calling thread for @p nMilliSec milliseconds, see clock_nanosleep(2) on CLOCK_MONOTONIC.
 *
 * A signal handler that runs meanwhile does not shorten the time. A time of 0 or less returns at once.
 *
 * Thread-safety: any thread; it is a cancellation point.
 * Errors: none.
 */
VORNSUPT_API void VornSleep(int nMilliSec);

} // namespace VornSupport

#endif
