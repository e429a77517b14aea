// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornSubscriber.h"

#include "ServiceAddress.h"
#include "SubscriberWork.h"
#include "Wire.h"

#include <VornException.h>

#include <cerrno>
#include <new>
#include <system_error>

namespace VornNet {

namespace {

constexpr const char* cInvalidOption = "VornSubscriber::VornSubscriber: invalid option.";
constexpr const char* cStartFailed = "VornSubscriber::VornSubscriber: failed to start.";
constexpr const char* cInvalidAddress = "VornSubscriber::setAddress: invalid address.";

bool isSound(const VornString& sTopic, const VornSubscriber::EventHandler& onEvent,
             const VornSubscriber::Options& options) {
    constexpr std::chrono::milliseconds cNone(0);
    return Wire::isTopic(sTopic) && onEvent && options.sWords.size() <= Wire::cLongestWords &&
           options.sWords.find('\0') == VornString::npos && options.nEventLimit > 0 &&
           options.answerLimit > cNone && options.firstPause > cNone && options.longestPause > cNone;
}

} // namespace

/** Keeps the name that the header gives it, for a state machine that knows nothing of who owns it. */
class VORNNOTIFY_LOCAL VornSubscriber::Work : public SubscriberWork {
public:
    using SubscriberWork::SubscriberWork;
};

VornSubscriber::VornSubscriber(const VornString& sAddress, const VornString& sTopic,
                               const EventHandler& onEvent)
    : VornSubscriber(sAddress, sTopic, onEvent, Options()) {}

VornSubscriber::VornSubscriber(const VornString& sAddress, const VornString& sTopic,
                               const EventHandler& onEvent, const Options& options) {
    try {
        const auto service = ServiceAddress::ofClient(sAddress);
        if (!service || !isSound(sTopic, onEvent, options))
            throw VornException(cInvalidOption, EINVAL);
        m_spWork = std::make_shared<Work>(*service, sTopic, onEvent, options);
        m_spWork->start();
    } catch (const std::system_error& e) {
        throw VornException(cStartFailed, e.code().value());
    } catch (const std::bad_alloc&) {
        throw VornException(cStartFailed, ENOMEM);
    }
}

VornSubscriber::~VornSubscriber() {
    m_spWork->abandon();
}

int VornSubscriber::getHandle() const {
    return m_spWork->handle();
}

std::size_t VornSubscriber::dispatch() {
    const std::shared_ptr<Work> spWork = m_spWork; // a handler may destroy this object
    return spWork->dispatch();
}

VornSubscriber::Status VornSubscriber::status() const {
    return m_spWork->record().status();
}

VornPosition VornSubscriber::position() const {
    return m_spWork->record().position();
}

VornSubscriber::Statistics VornSubscriber::statistics() const {
    return m_spWork->record().statistics();
}

void VornSubscriber::setAddress(const VornString& sAddress) {
    const auto service = ServiceAddress::ofClient(sAddress);
    if (!service)
        throw VornException(cInvalidAddress, EINVAL);
    m_spWork->setAddress(*service);
}

void VornSubscriber::stop() {
    m_spWork->stop();
}

const char* VornSubscriber::nameOf(State state) {
    switch (state) {
    case State::connecting:
        return "connecting";
    case State::connected:
        return "connected";
    case State::away:
        return "away";
    case State::refused:
        return "refused";
    case State::stopped:
        return "stopped";
    }
    return "unknown";
}

} // namespace VornNet
