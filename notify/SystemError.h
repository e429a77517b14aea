// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SYSTEMERROR_H
#define VORNNOTIFY_SYSTEMERROR_H

#include <system_error>

namespace VornNet {

/** Throws an error number of the system, for the caller that knows what to say about it. */
[[noreturn]] inline void throwSystemError(int nCode) {
    throw std::system_error(nCode, std::generic_category());
}

} // namespace VornNet

#endif
