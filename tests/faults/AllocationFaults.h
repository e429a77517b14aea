// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_ALLOCATIONFAULTS_H
#define VORNTEST_ALLOCATIONFAULTS_H

/**
 * @file
 * Failing allocations, by a malloc() of the test program's own. Not for sanitizer builds, which bring their
 * own.
 */
namespace VornTest {

/// Makes the n-th allocation of the calling thread fail, once, while it exists.
class AllocationFault {
public:
    explicit AllocationFault(int nth);
    ~AllocationFault();
    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;

    /// Whether there were so many allocations.
    bool happened() const;
};

/// How many blocks the calling thread has allocated and not freed.
long liveAllocations();

} // namespace VornTest

#endif
