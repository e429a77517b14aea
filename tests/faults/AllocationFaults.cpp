// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AllocationFaults.h"

#include <cerrno>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace {

// Plain thread-local numbers: an allocator must not allocate to find them.
thread_local int t_untilFault = 0;
thread_local bool t_happened = false;
thread_local long t_live = 0;

bool failsNow() {
    if (t_untilFault == 0 || --t_untilFault > 0)
        return false;
    t_happened = true;
    errno = ENOMEM;
    return true;
}

void* counted(void* block) {
    if (block != nullptr)
        ++t_live;
    return block;
}

} // namespace

// operator new comes down to this malloc().
extern "C" void* malloc(std::size_t size) {
    return failsNow() ? nullptr : counted(__libc_malloc(size));
}

extern "C" void* realloc(void* block, std::size_t size) {
    if (failsNow())
        return nullptr;
    void* result = __libc_realloc(block, size);
    return block == nullptr ? counted(result) : result;
}

extern "C" void free(void* block) {
    if (block != nullptr)
        --t_live;
    __libc_free(block);
}

namespace VornTest {

AllocationFault::AllocationFault(int nth) {
    t_happened = false;
    t_untilFault = nth;
}

AllocationFault::~AllocationFault() {
    t_untilFault = 0;
}

bool AllocationFault::happened() const {
    return t_happened;
}

long liveAllocations() {
    return t_live;
}

} // namespace VornTest
