// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkAddress.h"

#include "HandlerCall.h"

#include <exception>
#include <system_error>
#include <utility>

namespace VornNet {

namespace {

constexpr const char* cThrown = "VornSteadySink::onAddressChange: the handler threw: ";

} // namespace

SinkAddress::SinkAddress(const VornString& sThreadName, VornSteadySink::AddressHandler handler)
    : m_sThreadName(sThreadName), m_handler(std::move(handler)) {}

SinkAddress::~SinkAddress() {
    m_thread.join();
}

VornString SinkAddress::get() const {
    const std::lock_guard lock(m_lock);
    return m_sAddress;
}

void SinkAddress::set(const VornString& sAddress) {
    const std::lock_guard lock(m_lock);
    m_sAddress = sAddress;
}

void SinkAddress::change(VornString&& sAddress) noexcept {
    const std::lock_guard lock(m_lock);
    m_sAddress = std::move(sAddress);
    m_isUntold = m_handler != nullptr;
}

void SinkAddress::tell() {
    {
        const std::lock_guard lock(m_lock);
        if (!m_isUntold || m_isTelling)
            return;
        m_isTelling = true;
    }
    m_thread.join(); // one that has nothing to tell any more
    try {
        m_thread.start(m_sThreadName, [this] { run(); });
    } catch (const std::exception&) { // no thread or no memory
        const std::lock_guard lock(m_lock);
        m_isTelling = false;
    }
}

bool SinkAddress::isHandlerThread() const {
    const std::lock_guard lock(m_lock);
    return m_handlerThread == std::this_thread::get_id();
}

void SinkAddress::run() {
    std::unique_lock lock(m_lock);
    m_handlerThread = std::this_thread::get_id();
    while (m_isUntold) {
        m_isUntold = false;
        const VornString sAddress = m_sAddress;
        lock.unlock();
        call(sAddress);
        lock.lock();
    }
    m_handlerThread = {};
    m_isTelling = false;
}

void SinkAddress::call(const VornString& sAddress) {
    callHandler(VornLogging::cError, cThrown, [&] { m_handler(sAddress); });
}

} // namespace VornNet
