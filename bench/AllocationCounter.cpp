// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"

#include <atomic>
#include <cstddef>

namespace {

std::atomic<long> g_allocations{0};

void count() {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

long Bench::allocations() {
    return g_allocations.load(std::memory_order_relaxed);
}

// The names under which the C library keeps the functions that the program takes over.
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
    count();
    return __libc_malloc(size);
}

void* calloc(std::size_t number, std::size_t size) {
    count();
    return __libc_calloc(number, size);
}

void* realloc(void* block, std::size_t size) {
    count();
    return __libc_realloc(block, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    count();
    return __libc_memalign(alignment, size);
}
}
