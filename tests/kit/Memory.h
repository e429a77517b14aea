// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_MEMORY_H
#define VORNTEST_MEMORY_H

#include "Sanitizer.h"

#include <string>
#include <vector>

/**
 * @file
 * Memory that is scarce, and memory that is counted.
 */
namespace VornTest {

/**
 * The environment of a role in which 512 MiB are more than malloc() gives.
 *
 * A sanitizer needs terabytes of address space, so its allocator is told to refuse; elsewhere the role limits
 * its address space.
 */
std::vector<std::string> scarceMemoryEnvironment();

/** To be called in such a role: leaves no more than 512 MiB of address space. */
void limitMemory();

/** The memory that the process comes to have resident. */
class PeakMemory {
public:
    PeakMemory();

    /** How much more than at the beginning it has been at most, in KiB. */
    long grownKiB() const;

private:
    long m_atFirst;
};

/** What counts as memory in that: a sanitizer's own notes on an allocation are a part of its size. */
inline constexpr long noticeableKiB = underSanitizer ? 1024 * 1024 : 16 * 1024;

} // namespace VornTest

#endif
