// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// A client with several callbacks, which subscribes again and again: what it does not hear of any more,
// because its sink has moved or the service has given it up, comes back.

#include "History.h"
#include "Roles.h"

#include <TimeLimit.h>
#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornPipeConnection.h>
#include <VornSleep.h>
#include <VornSocketConnection.h>

#include <memory>

namespace Soak {

using namespace VornNet;

namespace {

class Callback : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        std::string token;
        try {
            token = spConnection->receiveString();
            const std::string body = spConnection->receiveString();
            awaitEnd(*spConnection);
            History::write("received token=%s callback=%d size=%zu sum=%zx", token.c_str(), getId(),
                           body.size(), sumOf(token, body));
        } catch (const VornException& e) {
            // Left to the sink, 104 and 4 would end it.
            History::write("partial token=%s callback=%d code=%d", token.c_str(), getId(), e.getCode());
        }
        if (getId() == callbacksPerClient - 1)
            VornSleep(3); // one that takes its time
    }

private:
    /** So that the sender closes first, and the sink's port stays free. */
    static void awaitEnd(VornConnection& connection) {
        char rest = 0;
        long error = 0;
        while (connection.receive(&rest, 1, &error, true) > 0) {
        }
    }
};

std::unique_ptr<VornConnection> connectionTo(const std::string& service) {
    const std::size_t host = service.find(':') + 1;
    if (service.starts_with("pipe:"))
        return std::make_unique<VornPipeConnection>(service.substr(host));
    const std::size_t port = service.rfind(':');
    return std::make_unique<VornSocketConnection>(service.substr(host, port - host),
                                                  std::stoi(service.substr(port + 1)), true, false);
}

bool subscribe(const Arguments& arguments, const VornString& address) {
    const Example::TimeLimit limit{std::chrono::seconds(patienceInSeconds)};
    try {
        const std::unique_ptr<VornConnection> connection = connectionTo(arguments.at(2));
        connection->transfer(std::stoi(arguments.at(0)));
        connection->transfer(std::stoi(arguments.at(1)));
        connection->transfer(address);
        connection->receiveShort();
        return connection->receiveShort() == 0;
    } catch (const VornException&) {
        return false; // the network may be bad, the service's descriptors may be used up: the next time
    }
}

void keepSubscribed(const Arguments& arguments, VornLibraryCallbackSink& sink, const sigset_t& signals) {
    constexpr int pausesBetween = 100;
    const timespec pause = {0, 10'000'000};
    VornString subscribed;
    int pauses = 0;
    do {
        // Over TCP to another host the sink moves after nearly every delivery: its port is held until the
        // last packet of the connection has been answered, and it opens again before that.
        const VornString address = sink.getCallbackAddress();
        if (address != subscribed || pauses % pausesBetween == 0)
            subscribed = subscribe(arguments, address) ? address : VornString();
        ++pauses;
    } while (sigtimedwait(&signals, nullptr, &pause) == -1);
}

} // namespace

int runClient(const Arguments& arguments) {
    const sigset_t signals = blockEndSignals(); // before the sink's thread, which inherits it
    VornLibraryCallbackSink sink("soak");
    VornCallbackContainer& callbacks = sink.getCallbackContainer();
    for (int i = 0; i < callbacksPerClient; ++i)
        callbacks.add(new Callback(callbacks.getNewId()));
    const Belongings idle = Belongings::count();
    idle.recordIdle();
    keepSubscribed(arguments, sink, signals);
    idle.recordIdle();
    return 0;
}

} // namespace Soak
