// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_WITHOUTMEMORY_H
#define VORNTEST_WITHOUTMEMORY_H

#include "AllocationFaults.h"
#include "PublisherFixture.h"

#include <functional>
#include <string>
#include <vector>

namespace VornTest {

/** Does it without the n-th block of memory, for each n that it needs. @return what was thrown */
inline std::vector<std::string> withoutEachBlock(const std::function<void()>& work) {
    std::vector<std::string> thrown;
    work(); // so that the kit has looked up the functions that it stands before
    for (int nth = 1; thrown.empty() || thrown.back() != "nothing"; ++nth) {
        thrown.push_back(thrownBy([&] {
            const AllocationFault fault(nth, AllocationFault::Mode::once, AllocationFault::Scope::thisThread);
            work();
        }));
    }
    thrown.pop_back();
    return thrown;
}

} // namespace VornTest

#endif
