// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_CANCELLATION_H
#define VORNSUPPORT_CANCELLATION_H

#include <exception>

namespace VornSupport {

/**
 * For handlers that catch everything: whether what they caught is the cancellation of the thread, which
 * unwinds like an exception without being one and has to be passed on. Not installed.
 */
inline bool isCancellation() {
    return std::current_exception() == nullptr;
}

} // namespace VornSupport

#endif
