// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "EventPoster.h"

#include "VornExchange.h"

#include <VornException.h>

#include <cerrno>
#include <chrono>

namespace VornNet {

namespace {

/** The callback at a subscriber's address; its content is an event's number and content. */
class EventProxy : public VornProxyDependent {
public:
    EventProxy(const VornString& sAddress, long hCallback, std::uint64_t number, std::string_view content)
        : VornProxyDependent(sAddress, hCallback), m_nNumber(number), m_content(content) {}

    void addContent(VornConnection& connection, const VornNotification& /*notification*/) override {
        VornExchange::transferUInt64(connection, m_nNumber);
        if (!m_content.empty())
            connection.put(const_cast<char*>(m_content.data()), static_cast<int>(m_content.size()));
    }

private:
    std::uint64_t m_nNumber;
    std::string_view m_content;
};

VornDispatcher::Options optionsOf(const VornString& sName, const EventPoster::Done& done) {
    VornDispatcher::Options options;
    options.sName = sName;
    options.terms.timeLimit = std::chrono::milliseconds::max(); // the publisher sees how long a sink takes
    options.stopLimit = std::chrono::milliseconds(0);
    options.onResult = done;
    return options;
}

} // namespace

EventPoster::EventPoster(const VornString& sName, const Done& done) : m_dispatcher(optionsOf(sName, done)) {}

std::uint64_t EventPoster::post(const VornString& sAddress, long hCallback, std::uint64_t number,
                                std::string_view content) {
    EventProxy proxy(sAddress, hCallback, number, content);
    try {
        return m_dispatcher.post(proxy, VornNotification(0));
    } catch (const VornException& e) {
        return e.getCode() == EMSGSIZE ? cNeverFits : cNoRoom;
    }
}

} // namespace VornNet
