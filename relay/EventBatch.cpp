// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "EventBatch.h"

#include <VornException.h>
#include <Wire.h>

#include <stdexcept>
#include <utility>

namespace VornRelay {

namespace {

constexpr const char* cPosition = "Vorn-Position";
constexpr const char* cVersion = "Vorn-Version";
constexpr std::string_view cOwnVersion = "1";
constexpr std::size_t cLength = 4;

} // namespace

EventBatch EventBatch::from(const Engine::Message& message) try {
    if (message.header(cVersion) != cOwnVersion)
        throw std::runtime_error("a relay of another version has written it");
    EventBatch batch(VornNet::VornPosition::fromText(std::string(message.header(cPosition))));
    if (batch.before().nHistory == 0)
        throw std::runtime_error("events of no history");
    for (std::string_view rest = message.sContent; !rest.empty();) {
        const std::size_t nLength = rest.size() < cLength ? 0 : VornNet::Wire::intAt(rest.data());
        if (rest.size() < cLength + nLength)
            throw std::runtime_error("events that are not whole");
        batch.add(std::string(rest.substr(cLength, nLength)));
        rest.remove_prefix(cLength + nLength);
    }
    return batch;

} catch (const VornSupport::VornException& error) {

    throw std::runtime_error(error.getText());
}

Engine::Message EventBatch::message(const std::string& sSubject, std::uint64_t nNewest) const {
    Engine::Message message{sSubject,
                            {{cPosition, m_before.text()},
                             {cVersion, std::string(cOwnVersion)},
                             {"Nats-Expected-Last-Subject-Sequence", std::to_string(nNewest)}},
                            {}};
    message.sContent.reserve(m_nBytes);
    for (const std::string& sEvent : m_events)
        VornNet::Wire::appendText(message.sContent, sEvent);
    return message;
}

void EventBatch::add(std::string&& sEvent) {
    m_nBytes += cLength + sEvent.size();
    m_events.push_back(std::move(sEvent));
}

} // namespace VornRelay
