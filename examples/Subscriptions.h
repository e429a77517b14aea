// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_SUBSCRIPTIONS_H
#define EXAMPLES_SUBSCRIPTIONS_H

#include "FileEvent.h"
#include "TimeLimit.h"

#include <VornCriticalSection.h>
#include <VornException.h>
#include <VornProxyDependentContainer.h>
#include <VornSleep.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>
#include <vector>

namespace Example {

using VornNet::VornConnection;
using VornNet::VornCriticalSection;
using VornNet::VornException;
using VornNet::VornNotification;
using VornNet::VornProxyDependent;
using VornNet::VornProxyDependentContainer;
using VornNet::VornSleep;
using VornNet::VornSmartPointer;
using VornNet::VornString;

constexpr std::chrono::seconds cPatience(2); // for one client; the others wait meanwhile

/** One client's callback, and the account of the events sent to it. */
class Subscription : public VornProxyDependent {
public:
    using VornProxyDependent::VornProxyDependent;

    void addContent(VornConnection& connection, const VornNotification& notification) override {
        dynamic_cast<const FileEvent&>(notification).write(connection);
    }

    // Only the main thread uses the numbers.
    int m_nSent = 0;
    int m_nDelivered = 0; // written to the connection; the client acknowledges nothing
    int m_nRefused = 0;   // given up after several tries
    int m_nRetries = 0;
    const char* m_sState = "subscribed"; // guarded by the registry's lock
};

/** The subscriptions: those in force are in the library's registry, and each has an account here. */
class Subscriptions {
public:
    void add(const VornString& sAddress, long hCallback) {
        const VornCriticalSection lock(m_registry.getlock(), true);
        if (m_registry.lookup(sAddress, hCallback) != nullptr)
            return;
        const VornSmartPointer<Subscription> spSubscription = new Subscription(sAddress, hCallback);
        m_registry.add(&*spSubscription);
        m_accounts.push_back(spSubscription);
        if (m_accounts.size() > cMostAccounts)
            m_accounts.pop_front();
        std::printf("service: %s subscribed\n", sAddress.c_str());
    }

    void remove(const VornString& sAddress, long hCallback, const char* sState) {
        const VornCriticalSection lock(m_registry.getlock(), true);
        const VornSmartPointer<VornProxyDependent> spClient = m_registry.lookup(sAddress, hCallback);
        if (spClient == nullptr)
            return;
        static_cast<Subscription&>(*spClient).m_sState = sState;
        m_registry.remove(sAddress, hCallback);
        std::printf("service: %s %s\n", sAddress.c_str(), sState);
    }

    void notifyAll(const FileEvent& event) {
        std::vector<VornSmartPointer<VornProxyDependent>> clients;
        {
            // Copied under the lock and notified without it: a notification may block, the desk must not.
            const VornCriticalSection lock(m_registry.getlock(), true);
            for (int i = 0; i < m_registry.size(); ++i)
                clients.push_back(m_registry[i]);
        }
        for (const auto& spClient : clients)
            notify(static_cast<Subscription&>(*spClient), event);
    }

    void printTable() {
        const VornCriticalSection lock(m_registry.getlock(), true);
        std::printf("%-28s %6s %10s %8s %8s  %s\n", "client", "sent", "delivered", "refused", "retries",
                    "state");
        for (const auto& spClient : m_accounts) {
            std::printf("%-28s %6d %10d %8d %8d  %s\n", spClient->getRemoteName().c_str(), spClient->m_nSent,
                        spClient->m_nDelivered, spClient->m_nRefused, spClient->m_nRetries,
                        spClient->m_sState);
        }
    }

private:
    /**
     * Sends one event to one client and drops a client that cannot be reached.
     *
     * One refusal is no reason to drop it. After each notification a sink closes its server and opens it
     * again. A sender that connects in between finds no pipe (2) or nobody listening (111), or its connection
     * is closed at once (32, 104). This usually lasts less than a millisecond, so a few more tries tell such
     * a client from one that is gone. Nothing arrives twice: an exception means that the event was not sent
     * completely.
     */
    void notify(Subscription& client, const FileEvent& event) {
        constexpr int cMostTries = 10;
        constexpr int cPause = 20;
        ++client.m_nSent;
        for (int nTry = 1;; ++nTry) {
            try {
                const TimeLimit limit(cPatience);
                client.remoteNotify(event);
                ++client.m_nDelivered;
                return;
            } catch (const VornException& e) {
                const int nCode = e.getCode();
                const bool bReopens =
                    nCode == ENOENT || nCode == ECONNREFUSED || nCode == EPIPE || nCode == ECONNRESET;
                if (!bReopens || nTry == cMostTries) {
                    ++client.m_nRefused;
                    std::printf("service: %s (%d)\n", e.getText().c_str(), nCode);
                    remove(client.getRemoteName(), client.getDependentHandle(), "dropped");
                    return;
                }
            }
            ++client.m_nRetries;
            VornSleep(cPause);
        }
    }

    static constexpr std::size_t cMostAccounts = 1000; // a service may run for years
    VornProxyDependentContainer& m_registry = VornProxyDependentContainer::getInstance();
    std::deque<VornSmartPointer<Subscription>> m_accounts; // guarded by the registry's lock
};

} // namespace Example

#endif
