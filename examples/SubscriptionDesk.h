// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_SUBSCRIPTIONDESK_H
#define EXAMPLES_SUBSCRIPTIONDESK_H

#include "FileEvent.h"
#include "TimeLimit.h"

#include <VornException.h>
#include <VornPipeServer.h>
#include <VornSleep.h>
#include <VornThread.h>

#include <chrono>
#include <cstdio>
#include <filesystem>

namespace Example {

using VornNet::VornConnection;
using VornNet::VornException;
using VornNet::VornPipeServer;
using VornNet::VornSleep;
using VornNet::VornSmartPointer;
using VornNet::VornString;
using VornNet::VornThread;

constexpr std::chrono::seconds cDeskPatience(2); // for one client; the others wait meanwhile

/**
 * The thread that takes subscriptions: it serves one client after the other at the service's own pipe.
 * @tparam Subscriptions what keeps them
 */
template <typename Subscriptions>
class SubscriptionDesk final : public VornThread {
public:
    SubscriptionDesk(const std::filesystem::path& directory, Subscriptions& subscriptions)
        : VornThread("desk"), m_directory(directory), m_subscriptions(subscriptions),
          m_spServer(new VornPipeServer(cPipeName)) {
        start();
    }

    ~SubscriptionDesk() override {
        stop();
        do // until the thread has ended: a server that is closed between two waits opens again with the next
            m_spServer->close();
        while (!wait(20));
    }

    using VornThread::run;

    int run() override {
        while (!isStopRequested()) {
            try {
                VornSmartPointer<VornConnection> spClient = m_spServer->waitForClient(false);
                if (spClient != nullptr) // null: closed
                    serve(*spClient);
            } catch (const VornException& e) {
                std::fprintf(stderr, "service: desk: %s (%d)\n", e.getText().c_str(), e.getCode());
                VornSleep(100); // the next wait would probably fail at once, too
            }
        }
        return 0;
    }

private:
    void serve(VornConnection& client) {
        const TimeLimit limit(cDeskPatience);
        char service[64];
        int nSize = sizeof service;
        int nErrorCode = 0;
        // Peek first: getLine() has no timeout, not even when the client has gone.
        if (!client.peekLine(service, nSize, nErrorCode) ||
            client.getLine(service, sizeof service, nErrorCode) == nullptr)
            return;
        const bool bWatches = VornString(service) == cWatchService;
        const bool bKnown = bWatches || VornString(service) == cUnwatchService;
        char answer = bKnown ? '+' : '-';
        client.put(&answer, 1);
        if (!bKnown)
            return;
        const VornString sAddress = client.receiveString();
        const long hCallback = client.receiveLong();
        const VornString sDirectory = client.receiveString();
        if (!isAddress(sAddress) || m_directory != sDirectory) {
            client.transferError();
            return;
        }
        // Done before the answer: a client that has the answer misses no event.
        if (bWatches)
            m_subscriptions.add(sAddress, hCallback);
        else
            m_subscriptions.remove(sAddress, hCallback, "left");
        client.transferACK();
    }

    // Notifications to an address with an unknown transport would be ignored without an error. Apart from
    // that the address is trusted: only this user and group can connect to the pipe.
    static bool isAddress(const VornString& sAddress) {
        const VornString sTransport = sAddress.substr(0, sAddress.find(':'));
        return (sTransport == "pipe" || sTransport == "socket" || sTransport == "udp") &&
               sAddress.size() > sTransport.size() + 1;
    }

    const std::filesystem::path m_directory;
    Subscriptions& m_subscriptions;
    const VornSmartPointer<VornPipeServer> m_spServer;
};

} // namespace Example

#endif
