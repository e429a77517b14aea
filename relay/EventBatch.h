// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_EVENTBATCH_H
#define VORNRELAY_EVENTBATCH_H

#include "Engine.h"

#include <VornPosition.h>

#include <cstddef>
#include <string>
#include <vector>

namespace VornRelay {

/**
 * Events of a topic that follow one another, which are one message of the engine: a header has the position
 * before them, the content each one's length and bytes. One without events says that a history has begun.
 *
 * Thread-safety, ownership: a value. Blocking, signals: none. Errors: from() throws.
 */
class EventBatch {
public:
    explicit EventBatch(const VornNet::VornPosition& before) : m_before(before) {}

    /** @throws std::runtime_error for a message that is no such one */
    static EventBatch from(const Engine::Message& message);

    /** @return the message, with that position for the newest one of its subject. */
    Engine::Message message(const std::string& sSubject, std::uint64_t nNewest) const;

    void add(std::string&& sEvent);

    const VornNet::VornPosition& before() const { return m_before; }

    VornNet::VornPosition after() const { return {m_before.nHistory, m_before.nNumber + m_events.size()}; }

    const std::vector<std::string>& events() const { return m_events; }

    std::size_t bytes() const { return m_nBytes; }

private:
    VornNet::VornPosition m_before;
    std::vector<std::string> m_events;
    std::size_t m_nBytes = 0;
};

} // namespace VornRelay

#endif
