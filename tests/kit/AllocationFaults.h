// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_ALLOCATIONFAULTS_H
#define VORNTEST_ALLOCATIONFAULTS_H

/**
 * @file
 * Failing and counted allocations, by a malloc() of the test program's own. A sanitizer brings one along that
 * must not be replaced; in its builds nothing is counted, and its own look for leaks takes the place of that.
 */
namespace VornTest {

/**
 * Makes the n-th allocation from now on fail, once or together with all later ones, while it exists. There
 * is one at a time.
 */
class AllocationFault {
public:
    enum class Mode { once, fromThenOn };
    enum class Scope { thisThread, otherThreads, allThreads };

    AllocationFault(int nth, Mode mode, Scope scope);
    ~AllocationFault();
    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;

    /** How many allocations there have been, failed ones included. */
    static int allocations();
};

/** How many blocks the process has allocated and not freed. */
long liveAllocations();

} // namespace VornTest

#endif
