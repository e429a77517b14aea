// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "BeforeAllocation.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {

thread_local const std::function<void()>* t_action = nullptr;

} // namespace

void VornTest::beforeNextAllocation(const std::function<void()>& action) {
    t_action = &action;
}

void* operator new(std::size_t size) {
    if (const auto* const action = std::exchange(t_action, nullptr))
        (*action)();
    if (void* const block = std::malloc(size))
        return block;
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return std::malloc(size);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
