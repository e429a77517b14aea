// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_DESCRIPTORLIMIT_H
#define VORNNOTIFY_DESCRIPTORLIMIT_H

#include <SystemCalls.h>

#include <algorithm>
#include <cstddef>

namespace VornNet {

/** @return half the descriptors that the process may have, but at least one and at most @p nMost. */
inline std::size_t halfOfDescriptors(std::size_t nMost) {
    rlimit descriptors{};
    System::getrlimit(RLIMIT_NOFILE, &descriptors);
    return std::clamp<std::size_t>(descriptors.rlim_cur / 2, 1, nMost);
}

} // namespace VornNet

#endif
