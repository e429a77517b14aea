// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AllocationFaults.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Plain atomic numbers: an allocator must not allocate to find them.
std::atomic<long> g_live{0};
std::atomic<int> g_nth{0}; // 0: nothing fails
std::atomic<bool> g_isLasting{false};
std::atomic<long> g_thread{0}; // 0: any; negative: any but that one
std::atomic<int> g_seen{0};

} // namespace

#ifdef VORNTEST_OWN_MALLOC

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

namespace {

bool failsNow() {
    const int nth = g_nth.load(std::memory_order_relaxed);
    if (nth == 0)
        return false;
    const long thread = g_thread.load(std::memory_order_relaxed);
    const long caller = thread == 0 ? 0 : ::syscall(SYS_gettid);
    if (thread > 0 ? thread != caller : thread < 0 && -thread == caller)
        return false;
    const int number = ++g_seen;
    if (number != nth && !(g_isLasting && number > nth))
        return false;
    errno = ENOMEM;
    return true;
}

void* counted(void* block) {
    if (block != nullptr)
        g_live.fetch_add(1, std::memory_order_relaxed);
    return block;
}

} // namespace

// operator new comes down to this malloc().
extern "C" void* malloc(std::size_t size) {
    return failsNow() ? nullptr : counted(__libc_malloc(size));
}

extern "C" void* calloc(std::size_t count, std::size_t size) {
    return failsNow() ? nullptr : counted(__libc_calloc(count, size));
}

extern "C" void* realloc(void* block, std::size_t size) {
    if (failsNow())
        return nullptr;
    void* result = __libc_realloc(block, size);
    if (block == nullptr)
        return counted(result);
    if (result == nullptr && size == 0)
        g_live.fetch_sub(1, std::memory_order_relaxed); // it was a free()
    return result;
}

extern "C" void* memalign(std::size_t alignment, std::size_t size) {
    return failsNow() ? nullptr : counted(__libc_memalign(alignment, size));
}

extern "C" void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}

extern "C" int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

extern "C" void free(void* block) {
    if (block != nullptr)
        g_live.fetch_sub(1, std::memory_order_relaxed);
    __libc_free(block);
}

#endif

namespace VornTest {

AllocationFault::AllocationFault(int nth, Mode mode, Scope scope) {
    g_seen = 0;
    g_isLasting = mode == Mode::fromThenOn;
    const long thread = ::syscall(SYS_gettid);
    g_thread = scope == Scope::thisThread ? thread : scope == Scope::otherThreads ? -thread : 0;
    g_nth = nth;
}

AllocationFault::~AllocationFault() {
    g_nth = 0;
}

int AllocationFault::allocations() {
    return g_seen;
}

long liveAllocations() {
    return g_live;
}

} // namespace VornTest
