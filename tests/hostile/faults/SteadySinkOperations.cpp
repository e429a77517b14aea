// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for the steady sink of each kind.

#include "Operations.h"
#include "RawSender.h"

#include <VornNotificationCallback.h>
#include <VornSteadySink.h>

#include <chrono>
#include <optional>
#include <utility>

using namespace VornNet;

namespace VornTest {

namespace {

using Kind = VornSteadySink::Kind;

class Callback : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

protected:
    void doCallback(VornSmartPointer<VornConnection>& connection) override { connection->receiveLong(); }
};

VornSteadySink::Options optionsFor(Kind kind) {
    VornSteadySink::Options options;
    options.kind = kind;
    return options;
}

/** A sink with one callback. */
class Client {
public:
    explicit Client(Kind kind) {
        m_sink.emplace("sink", optionsFor(kind));
        m_sink->getCallbackContainer().add(m_callback);
    }

    VornSteadySink& sink() { return *m_sink; }

    void destroy() { m_sink.reset(); }

    bool isCalled() { return m_callback->wait(0); }

private:
    const VornSmartPointer<VornNotificationCallback> m_callback = new Callback(0);
    std::optional<VornSteadySink> m_sink;
};

Operations rowsOf(Kind kind, const std::string& name) {
    return {
        {{"VornSteadySink::VornSteadySink"},
         name,
         startsAThread, // and the resolver may be out of memory, too
         [kind](Trial& trial) {
             std::optional<VornSteadySink> sink;
             trial.attemptOnAllThreads(
                 [&] { sink.emplace("a name of more than fifteen bytes", optionsFor(kind)); });
         }},
        {{"VornSteadySink, a delivery"},
         name,
         doesWithout,
         [kind](Trial& trial) {
             Client client(kind);
             // Without memory a notification waits where it is, or its sender is told; it is sent again.
             trial.attemptOnOtherThreads([&] {
                 using Clock = std::chrono::steady_clock;
                 const auto end = Clock::now() + std::chrono::milliseconds(500);
                 const auto isOver = [&] { return client.isCalled() || Clock::now() >= end; };
                 const RawSender sender(isOver);
                 while (!isOver())
                     sender.send(client.sink().getCallbackAddress(), 0, 12);
             });
         }},
        {{"VornSteadySink::~VornSteadySink"},
         name,
         doesWithout,
         [kind](Trial& trial) {
             Client client(kind);
             trial.attemptOnAllThreads([&] { client.destroy(); });
         }},
        {{"VornSteadySink::getCallbackAddress"},
         name,
         throwsBadAlloc,
         [kind](Trial& trial) {
             Client client(kind);
             trial.attempt([&] { client.sink().getCallbackAddress(); });
         }},
        {{"VornSteadySink::getCallbackContainer", "VornSteadySink::statistics"},
         name,
         allocatesNothing,
         [kind](Trial& trial) {
             Client client(kind);
             trial.attempt([&] {
                 client.sink().getCallbackContainer();
                 client.sink().statistics();
             });
         }},
    };
}

} // namespace

Operations steadySinkOperations() {
    Operations rows;
    for (const auto& [kind, name] :
         {std::pair(Kind::pipe, "pipe"), std::pair(Kind::tcp, "socket"), std::pair(Kind::udp, "udp")}) {
        const Operations more = rowsOf(kind, name);
        rows.insert(rows.end(), more.begin(), more.end());
    }
    return rows;
}

} // namespace VornTest
