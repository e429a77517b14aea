// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ForkHandlers.h"

#include "Cancellation.h"
#include "SystemCalls.h"

namespace VornSupport {

struct ForkHandlers::Enrolled {
    Handlers first = {[] {}, [] {}, [] {}}; // GCOVR_EXCL_LINE: replaced at load
    std::mutex lock;                        // guards the list
    IntrusiveList<ForkHandlers> others;

    Enrolled() { System::atFork(beforeFork, afterForkInParent, afterForkInChild); }
};

ForkHandlers::ForkHandlers(Handler takeLocks, Handler letLocksGo, Handler startAfresh, Order order)
    : m_handlers{takeLocks, letLocksGo, startAfresh} {
    if (order == cFirst) {
        enrolled().first = m_handlers;
        return;
    }
    const std::lock_guard lock(enrolled().lock);
    enrolled().others.add(*this);
}

ForkHandlers::~ForkHandlers() {
    const std::lock_guard lock(enrolled().lock);
    enrolled().others.remove(*this);
}

ForkHandlers::Enrolled& ForkHandlers::enrolled() {
    static NeverDestroyed<Enrolled> instance;
    return instance.object;
}

void ForkHandlers::beforeFork() {
    enrolled().first.takeLocks();
    enrolled().lock.lock();
    for (const ForkHandlers& other : enrolled().others)
        other.m_handlers.takeLocks();
}

void ForkHandlers::afterForkInParent() {
    for (const ForkHandlers& other : enrolled().others)
        other.m_handlers.letLocksGo();
    enrolled().lock.unlock();
    enrolled().first.letLocksGo();
}

void ForkHandlers::afterForkInChild() {
    const CancellationOff noCancellation; // fork() is not where a thread can be cancelled
    for (const ForkHandlers& other : enrolled().others)
        other.m_handlers.startAfresh();
    enrolled().lock.unlock();
    enrolled().first.startAfresh();
}

} // namespace VornSupport
