// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_RANDOM_H
#define VORNNOTIFY_RANDOM_H

#include <SystemCalls.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace VornNet {

/** @return a number that nobody can foresee, never 0. @throws std::system_error */
inline std::uint64_t randomNumber() {
    std::uint64_t number = 0;
    while (number == 0) {
        if (VornSupport::System::getrandom(&number, sizeof number, 0) == -1 && errno != EINTR)
            throw std::system_error(errno, std::generic_category());
    }
    return number;
}

} // namespace VornNet

#endif
