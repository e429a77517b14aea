// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for the sink of each kind.

#include "Operations.h"
#include "RawSender.h"

#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>

#include <cstdlib>
#include <optional>

using namespace VornNet;

namespace VornTest {

namespace {

class Callback : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

protected:
    void doCallback(VornSmartPointer<VornConnection>& connection) override {
        connection->receiveLong();
        char letter = 0;
        long error = 0;
        connection->receive(&letter, 1, &error, true); // the end, so that the sender closes first
    }
};

/** A sink of the kind that the environment says, with one callback. */
class Client {
public:
    explicit Client(const std::string& kind) {
        ::setenv("QUORAX_CALLB_CONN_TYPE", kind.c_str(), 1);
        m_sink.emplace("sink");
        m_sink->getCallbackContainer().add(m_callback);
    }

    VornLibraryCallbackSink& sink() { return *m_sink; }

    void destroy() { m_sink.reset(); }

    bool isOver() { return m_callback->wait(0) || m_sink->wait(0); }

private:
    const VornSmartPointer<VornNotificationCallback> m_callback = new Callback(0);
    std::optional<VornLibraryCallbackSink> m_sink;
};

Operations rowsOf(const std::string& kind) {
    return {
        // Without what its thread needs, the constructor waits forever.
        {{"VornLibraryCallbackSink::VornLibraryCallbackSink", "VornLibraryCallbackSink::run",
          "VornLibraryCallbackSink::establishCallbackServer",
          "VornLibraryCallbackSink::establishDefaultCallbackServer",
          "VornLibraryCallbackSink::waitForServerPort", "VornLibraryCallbackSink::getMyIpAddr"},
         kind,
         throwsBadAlloc | throwsVornException | endsProcess | neverReturns | doesWithout,
         [kind](Trial& trial) {
             ::setenv("QUORAX_CALLB_CONN_TYPE", kind.c_str(), 1);
             trial.allowOpenDescriptor();
             std::optional<VornLibraryCallbackSink> sink;
             trial.attemptOnAllThreads([&] { sink.emplace("a name of more than fifteen bytes"); });
         }},
        {{"VornLibraryCallbackSink::run"},
         kind + ", a delivery",
         endsProcess | doesWithout,
         [kind](Trial& trial) {
             Client client(kind);
             trial.allowOpenDescriptor();
             trial.attemptOnOtherThreads([&] {
                 const RawSender sender([&] { return client.isOver(); });
                 while (!client.isOver())
                     sender.send(client.sink().getCallbackAddress(), 0, 12);
             });
         }},
        {{"VornLibraryCallbackSink::~VornLibraryCallbackSink"},
         kind,
         endsProcess | doesWithout,
         [kind](Trial& trial) {
             Client client(kind);
             trial.allowOpenDescriptor();
             trial.attemptOnAllThreads([&] { client.destroy(); });
         }},
        {{"VornLibraryCallbackSink::getCallbackAddress"},
         kind,
         throwsBadAlloc,
         [kind](Trial& trial) {
             Client client(kind);
             trial.attempt([&] { client.sink().getCallbackAddress(); });
         }},
        {{"VornLibraryCallbackSink::getCallbackContainer", "VornLibraryCallbackSink::getCallbackSocket"},
         kind,
         allocatesNothing,
         [kind](Trial& trial) {
             Client client(kind);
             trial.attempt([&] {
                 client.sink().getCallbackContainer();
                 client.sink().getCallbackSocket();
             });
         }},
    };
}

/** The move to the next port. */
class Mover : public VornLibraryCallbackSink {
public:
    Mover() : VornLibraryCallbackSink("sink") {}

    using VornLibraryCallbackSink::tryNextPort;
};

Operation moving() {
    return {{"VornLibraryCallbackSink::tryNextPort"}, "", throwsBadAlloc, [](Trial& trial) {
                ::setenv("QUORAX_CALLB_CONN_TYPE", "socket", 1);
                Mover sink;
                const VornString address = sink.getCallbackAddress();
                const short port = sink.getCallbackSocket();
                trial.attempt([&] { sink.tryNextPort(); });
                const bool isMoved = sink.getCallbackSocket() != port;
                trial.expect(isMoved == (sink.getCallbackAddress() != address), "half moved");
            }};
}

} // namespace

Operations sinkOperations() {
    Operations rows = {moving()};
    for (const char* kind : {"pipe", "socket", "udp"}) {
        const Operations more = rowsOf(kind);
        rows.insert(rows.end(), more.begin(), more.end());
    }
    return rows;
}

} // namespace VornTest
