// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_ADDRESSQUEUE_H
#define VORNNOTIFY_ADDRESSQUEUE_H

#include "CallbackEndpoint.h"
#include "DeliveryTry.h"
#include "EventPoll.h"
#include "PostedNotification.h"

#include <chrono>
#include <cstddef>
#include <memory>

namespace VornNet {

/**
 * What waits for one address, and the try of the first. It exists while something waits, or a pause has to be
 * kept. As a timer it is due at the end of a pause, or when a connection takes too long.
 */
class AddressQueue : public Timer {
public:
    enum class State {
        idle,    ///< has nothing to do
        ready,   ///< is in line for its next try
        trying,  ///< its first notification is being tried
        pausing, ///< its timer is set, and ends the pause
    };

    /** @param poll is told of the sockets' events, with the address of this object */
    AddressQueue(const CallbackEndpoint& endpoint, EventPoll& poll);

    const CallbackEndpoint& endpoint() const { return m_endpoint; }

    bool isDatagram() const { return m_endpoint.kind() == CallbackEndpoint::Kind::udp; }

    /** @return whether the notification is the one that is being tried. */
    bool isTried(const PostedNotification& notification) const {
        return state == State::trying && &notification == &waiting.front();
    }

    /** @return the first that is not being tried. */
    PostedNotifications::iterator firstUntried() {
        return state == State::trying ? std::next(waiting.begin()) : waiting.begin();
    }

    PostedNotifications waiting;
    State state = State::idle;
    int nLastCode = 0;                  ///< of the last failure since the last success
    std::chrono::nanoseconds pause{0};  ///< the last one, not varied; 0 after a success
    std::unique_ptr<DeliveryTry> spTry; ///< used by the delivering thread only
    AddressQueue* nextInLine = nullptr;

private:
    CallbackEndpoint m_endpoint;
};

/** Addresses that stand in line. Each stands in one line at most. */
class AddressLine {
public:
    bool isEmpty() const { return m_first == nullptr; }

    std::size_t length() const { return m_nLength; }

    void append(AddressQueue& queue) {
        *m_end = &queue;
        m_end = &queue.nextInLine;
        ++m_nLength;
    }

    AddressQueue& takeFirst() {
        AddressQueue& first = *m_first;
        m_first = first.nextInLine;
        first.nextInLine = nullptr;
        if (m_first == nullptr)
            m_end = &m_first;
        --m_nLength;
        return first;
    }

private:
    AddressQueue* m_first = nullptr;
    AddressQueue** m_end = &m_first;
    std::size_t m_nLength = 0;
};

} // namespace VornNet

#endif
