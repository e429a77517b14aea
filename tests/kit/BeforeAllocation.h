// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_BEFOREALLOCATION_H
#define VORNTEST_BEFOREALLOCATION_H

#include <functional>

namespace VornTest {

/**
 * Has @p action done by this thread before its next allocation by operator new: a way into the midst of an
 * operation that makes no system call. The action must live until then; its own allocations are left alone.
 *
 * A program that uses it gets an operator new of its own.
 */
void beforeNextAllocation(const std::function<void()>& action);

} // namespace VornTest

#endif
