// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornEvent.h"

#include "Cancellation.h"
#include "ForkHandlers.h"
#include "StandardStreams.h"
#include "SystemCalls.h"
#include "VornNotification.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace VornSupport {

struct VornEvent::State : RenewedInChild<VornEvent::State> {
    std::mutex lock;
    std::condition_variable signalled;
    bool isSet = false;
    int descriptor = -1; // created when first asked for: most events are never polled

    void startAfresh() {
        makeAnew(lock);
        makeAnew(signalled);
    }

    void showOnDescriptor() const {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = System::write(descriptor, &one, sizeof one);
    }

    void clearDescriptor() const {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t taken = System::read(descriptor, &count, sizeof count);
    }
};

VornEvent::VornEvent() : m_pState(new State) {}

VornEvent::~VornEvent() {
    if (m_pState->descriptor != -1) {
        const CancellationOff noCancellation;
        System::close(m_pState->descriptor);
    }
    delete m_pState;
}

void VornEvent::set() {
    const std::lock_guard lock(m_pState->lock);
    if (m_pState->isSet)
        return;
    m_pState->isSet = true;
    if (m_pState->descriptor != -1)
        m_pState->showOnDescriptor();
    // Under the lock: a waiter that wakes may destroy the event as soon as it gets the lock.
    m_pState->signalled.notify_all();
}

void VornEvent::reset() {
    const std::lock_guard lock(m_pState->lock);
    if (!m_pState->isSet)
        return;
    m_pState->isSet = false;
    if (m_pState->descriptor != -1)
        m_pState->clearDescriptor();
}

bool VornEvent::wait(int nMilliSec) {
    std::unique_lock lock(m_pState->lock);
    const auto isSet = [this] { return m_pState->isSet; };
    if (nMilliSec < 0) {
        m_pState->signalled.wait(lock, isSet);
        return true;
    }
    return m_pState->signalled.wait_for(lock, std::chrono::milliseconds(nMilliSec), isSet);
}

int VornEvent::getHandle() {
    const std::lock_guard lock(m_pState->lock);
    if (m_pState->descriptor == -1) {
        m_pState->descriptor = keepOffStandardStreams(System::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (m_pState->descriptor != -1 && m_pState->isSet)
            m_pState->showOnDescriptor();
    }
    return m_pState->descriptor;
}

VornNotification* VornEvent::createNotification() {
    return new VornNotification(0);
}

void VornEvent::destroyNotification(VornNotification* pNotification) {
    delete pNotification;
}

} // namespace VornSupport
