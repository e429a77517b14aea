// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_AUDIENCE_H
#define EXAMPLES_AUDIENCE_H

#include "FileEvent.h"

#include <VornDispatcher.h>
#include <VornException.h>
#include <VornProxyDependent.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <mutex>
#include <vector>

namespace Example {

using VornNet::VornDispatcher;
using VornNet::VornException;
using VornNet::VornProxyDependent;
using VornNet::VornSmartPointer;
using VornNet::VornString;

/** One client's callback, and the account of the events posted to it. */
class Listener : public VornProxyDependent {
public:
    using VornProxyDependent::VornProxyDependent;

    void addContent(VornConnection& connection, const VornNotification& notification) override {
        dynamic_cast<const FileEvent&>(notification).write(connection);
    }

    // Guarded by the audience's lock.
    int m_nPosted = 0;
    int m_nDelivered = 0; // the client's callback has returned; over UDP: sent
    int m_nLost = 0;
    unsigned int m_nTries = 0;
    const char* m_sState = "subscribed";
};

/** The clients that are to be told, and the dispatcher that tells them. No call waits for a client. */
class Audience {
public:
    Audience() : m_dispatcher(makeOptions()) {}

    void add(const VornString& sAddress, long hCallback) {
        const std::lock_guard lock(m_lock);
        if (find(sAddress, hCallback) != nullptr)
            return;
        m_listeners.push_back(new Listener(sAddress, hCallback));
        std::printf("service: %s subscribed\n", sAddress.c_str());
    }

    void remove(const VornString& sAddress, long hCallback, const char* sState) {
        bool bIsShared = false; // clients of another host have one address, that of their relay
        {
            const std::lock_guard lock(m_lock);
            Listener* pListener = find(sAddress, hCallback);
            if (pListener == nullptr)
                return;
            pListener->m_sState = sState;
            std::printf("service: %s %s\n", sAddress.c_str(), sState);
            bIsShared = std::any_of(m_listeners.begin(), m_listeners.end(), [&](const auto& spListener) {
                return isSubscribed(*spListener) && spListener->getRemoteName() == sAddress;
            });
        }
        if (!bIsShared)
            m_dispatcher.cancel(sAddress); // what is still queued for it would only wait for its time limit
    }

    void notifyAll(const FileEvent& event) {
        std::vector<VornSmartPointer<Listener>> unreachable;
        {
            const std::lock_guard lock(m_lock);
            for (const auto& spListener : m_listeners) {
                if (isSubscribed(*spListener) && !post(*spListener, event))
                    unreachable.push_back(spListener);
            }
        }
        for (const auto& spListener : unreachable)
            remove(spListener->getRemoteName(), spListener->getDependentHandle(), "dropped");
    }

    /** Delivers what is queued, but not without limit, and ends. */
    void stop() { m_dispatcher.stop(cPatience); }

    void printTable() {
        const std::lock_guard lock(m_lock);
        std::printf("%-28s %6s %10s %8s %8s  %s\n", "client", "posted", "delivered", "lost", "tries",
                    "state");
        for (const auto& spListener : m_listeners) {
            std::printf("%-28s %6d %10d %8d %8u  %s\n", spListener->getRemoteName().c_str(),
                        spListener->m_nPosted, spListener->m_nDelivered, spListener->m_nLost,
                        spListener->m_nTries, spListener->m_sState);
        }
    }

private:
    static constexpr std::chrono::seconds cPatience{5}; // a client that takes nothing for so long is dropped
    static constexpr std::size_t cMostListeners = 1000; // a service may run for years

    VornDispatcher::Options makeOptions() {
        VornDispatcher::Options options;
        options.terms.timeLimit = cPatience;
        options.onResult = [this](const VornDispatcher::Result& result) { account(result); };
        return options;
    }

    static bool isSubscribed(const Listener& listener) {
        return VornString(listener.m_sState) == "subscribed";
    }

    // A handle has 32 bits. Those of named leases have the highest one set, which some types take for a sign.
    static bool isOf(const Listener& listener, const VornString& sAddress, long hCallback) {
        return listener.getRemoteName() == sAddress &&
               static_cast<int>(listener.getDependentHandle()) == static_cast<int>(hCallback);
    }

    Listener* find(const VornString& sAddress, long hCallback) {
        for (const auto& spListener : m_listeners) {
            if (isSubscribed(*spListener) && isOf(*spListener, sAddress, hCallback))
                return spListener;
        }
        return nullptr;
    }

    /** @return false when the queue is full, or the address is none */
    bool post(Listener& listener, const FileEvent& event) {
        try {
            m_dispatcher.post(listener, event);
            ++listener.m_nPosted;
            return true;
        } catch (const VornException& e) {
            std::printf("service: %s (%d)\n", e.getText().c_str(), e.getCode());
            return false;
        }
    }

    /** What became of an event: told on a thread of the dispatcher, once for each that was posted. */
    void account(const VornDispatcher::Result& result) {
        using Outcome = VornDispatcher::Outcome;
        const bool bDelivered = result.outcome == Outcome::delivered || result.outcome == Outcome::sent;
        {
            const std::lock_guard lock(m_lock);
            for (const auto& spListener : m_listeners) {
                if (!isOf(*spListener, result.sAddress, result.nHandle))
                    continue;
                ++(bDelivered ? spListener->m_nDelivered : spListener->m_nLost);
                spListener->m_nTries += result.nTries;
            }
        }
        if (result.outcome == Outcome::expired)
            remove(result.sAddress, result.nHandle, "dropped");
    }

    std::mutex m_lock;
    std::deque<VornSmartPointer<Listener>> m_listeners; // guarded by the lock, those that are gone included
    VornDispatcher m_dispatcher;                        // the last: its threads use the rest
};

} // namespace Example

#endif
