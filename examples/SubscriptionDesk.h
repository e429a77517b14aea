// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_SUBSCRIPTIONDESK_H
#define EXAMPLES_SUBSCRIPTIONDESK_H

#include "FileEvent.h"
#include "Subscriptions.h"
#include "TimeLimit.h"

#include <VornException.h>
#include <VornPipeServer.h>
#include <VornSleep.h>
#include <VornThread.h>

#include <cstdio>
#include <filesystem>

namespace Example {

using namespace VornNet;

/** The thread that clients subscribe at. */
class SubscriptionDesk final : public VornThread {
public:
    SubscriptionDesk(const std::filesystem::path& directory, Subscriptions& subscriptions)
        : VornThread("desk"), m_directory(directory), m_subscriptions(subscriptions),
          m_spServer(new VornPipeServer(cPipeName)) {
        start();
    }

    ~SubscriptionDesk() override {
        stop();
        do // more than once: closed between two waits, the server opens again with the next
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
                VornSleep(100); // a wait that fails, fails again at once
            }
        }
        return 0;
    }

private:
    void serve(VornConnection& client) {
        const TimeLimit limit(cPatience);
        char service[64];
        int nSize = sizeof service;
        int nErrorCode = 0;
        // Looked at first: getLine() waits without limit, also for a client that has gone without a word.
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
        // Before the answer, so that a client that has it misses no event.
        if (bWatches)
            m_subscriptions.add(sAddress, hCallback);
        else
            m_subscriptions.remove(sAddress, hCallback, "left");
        client.transferACK();
    }

    // An address of no known kind would be ignored without an error at each event. Apart from that it is
    // trusted: the pipe is open to this user and group only.
    static bool isAddress(const VornString& sAddress) {
        const VornString sKind = sAddress.substr(0, sAddress.find(':'));
        return (sKind == "pipe" || sKind == "socket" || sKind == "udp") && sAddress.size() > sKind.size() + 1;
    }

    const std::filesystem::path m_directory;
    Subscriptions& m_subscriptions;
    const VornSmartPointer<VornPipeServer> m_spServer;
};

} // namespace Example

#endif
