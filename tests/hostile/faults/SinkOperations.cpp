// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for the sinks of each kind.

#include "Operations.h"
#include "Peers.h"
#include "Sandbox.h"

#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>
#include <VornSteadySink.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <system_error>

#include <poll.h>
#include <sys/socket.h>

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

void make(std::optional<VornLibraryCallbackSink>& sink, const std::string& kind, const char* name) {
    ::setenv("QUORAX_CALLB_CONN_TYPE", kind.c_str(), 1);
    sink.emplace(name);
}

void make(std::optional<VornSteadySink>& sink, const std::string& kind, const char* name) {
    using Kind = VornSteadySink::Kind;
    VornSteadySink::Options options;
    options.kind = kind == "pipe" ? Kind::pipe : kind == "udp" ? Kind::udp : Kind::tcp;
    sink.emplace(name, options);
}

/** Whether it leaves a descriptor open by contract and ends for good when its memory fails. */
template <typename Sink>
constexpr bool isPlain = std::is_same_v<Sink, VornLibraryCallbackSink>;

/** A sink with one callback. */
template <typename Sink>
class Client {
public:
    explicit Client(const std::string& kind) {
        make(m_sink, kind, "sink");
        m_sink->getCallbackContainer().add(m_callback);
    }

    Sink& sink() { return *m_sink; }

    void destroy() { m_sink.reset(); }

    /** Whether it has called, or its thread has ended. */
    bool isOver() {
        if constexpr (isPlain<Sink>)
            return m_callback->wait(0) || m_sink->wait(0);
        return m_callback->wait(0);
    }

private:
    const VornSmartPointer<VornNotificationCallback> m_callback = new Callback(0);
    std::optional<Sink> m_sink;
};

/** Sends a notification by hand, and over a stream waits until the sink has closed or it is over. */
void notify(const std::string& address, const std::function<bool()>& isOver) {
    const std::string bytes("\0\0\0\0\0\0\0\0\0\0\0\x0C\0\0\0\0", 16);
    const bool isPipe = address.starts_with("pipe:");
    const int port = isPipe ? 0 : std::stoi(address.substr(address.rfind(':') + 1));
    try {
        if (address.starts_with("udp:")) {
            int ownPort = 0;
            udpSendTo(udpSocket("127.0.0.1", ownPort).get(), "127.0.0.1", port, bytes);
            return;
        }
        const UniqueFd client =
            isPipe ? unixConnect(pipePath(address.substr(5))) : tcpConnect("127.0.0.1", port);
        sendAll(client.get(), bytes);
        ::shutdown(client.get(), SHUT_WR);
        pollfd entry = {client.get(), POLLIN, 0};
        while (!isOver() && ::poll(&entry, 1, 1) == 0) {
        }
    } catch (const std::system_error&) { // NOLINT: it is just opening again
    }
}

/** The life of a sink. @param names of the constructor and what it does */
template <typename Sink>
void addLife(Operations& table, const std::string& kind, const std::string& names, unsigned opening,
             unsigned serving) {
    const std::string ofClass = names.substr(0, names.find("::") + 2);
    const auto begin = [](Trial& trial) {
        if (isPlain<Sink>)
            trial.allowOpenDescriptor();
    };
    table.add(names, kind, opening, [=](Trial& trial) {
        begin(trial);
        std::optional<Sink> sink;
        trial.attemptOnAllThreads([&] { make(sink, kind, "a name of more than fifteen bytes"); });
    });
    // Without memory a notification waits where it is, or its sender is told; it is sent again.
    table.add(ofClass + "run", kind + ", a delivery", serving, [=](Trial& trial) {
        Client<Sink> client(kind);
        begin(trial);
        trial.attemptOnOtherThreads([&] {
            using Clock = std::chrono::steady_clock;
            const auto end = Clock::now() + std::chrono::milliseconds(500);
            const auto isOver = [&] { return client.isOver() || (!isPlain<Sink> && Clock::now() >= end); };
            while (!isOver())
                notify(client.sink().getCallbackAddress(), isOver);
        });
    });
    table.add(ofClass + "~" + ofClass.substr(0, ofClass.size() - 2), kind, serving, [=](Trial& trial) {
        Client<Sink> client(kind);
        begin(trial);
        trial.attemptOnAllThreads([&] { client.destroy(); });
    });
}

/** What asks a sink for something that it has. */
template <typename Sink, typename Do>
std::function<void(Trial&)> asking(const std::string& kind, Do ask) {
    return [=](Trial& trial) {
        Client<Sink> client(kind);
        trial.attempt([&] { ask(client.sink()); });
    };
}

/** The move to the next port. */
class Mover : public VornLibraryCallbackSink {
public:
    Mover() : VornLibraryCallbackSink("sink") {}

    using VornLibraryCallbackSink::tryNextPort;
};

} // namespace

void addSinks(Operations& table) {
    using Sink = VornLibraryCallbackSink;
    for (const std::string kind : {"pipe", "socket", "udp"}) {
        // Without what its thread needs, the constructor waits forever.
        addLife<Sink>(table, kind,
                      "VornLibraryCallbackSink::VornLibraryCallbackSink, establishCallbackServer, "
                      "establishDefaultCallbackServer, waitForServerPort, getMyIpAddr",
                      throwsBadAlloc | throwsVornException | endsProcess | neverReturns | doesWithout,
                      endsProcess | doesWithout);
        table.add("VornLibraryCallbackSink::getCallbackAddress", kind, throwsBadAlloc,
                  asking<Sink>(kind, [](Sink& sink) { sink.getCallbackAddress(); }));
        table.add("VornLibraryCallbackSink::getCallbackContainer, getCallbackSocket", kind, allocatesNothing,
                  asking<Sink>(kind, [](Sink& sink) {
                      sink.getCallbackContainer();
                      sink.getCallbackSocket();
                  }));
    }
    table.add("VornLibraryCallbackSink::tryNextPort", throwsBadAlloc, [](Trial& trial) {
        ::setenv("QUORAX_CALLB_CONN_TYPE", "socket", 1);
        Mover sink;
        const VornString address = sink.getCallbackAddress();
        const short port = sink.getCallbackSocket();
        trial.attempt([&] { sink.tryNextPort(); });
        const bool isMoved = sink.getCallbackSocket() != port;
        trial.expect(isMoved == (sink.getCallbackAddress() != address), "half moved");
    });
}

void addSteadySinks(Operations& table) {
    using Sink = VornSteadySink;
    for (const std::string kind : {"pipe", "socket", "udp"}) {
        // The resolver may be out of memory, too.
        addLife<Sink>(table, kind, "VornSteadySink::VornSteadySink", startsAThread, doesWithout);
        table.add("VornSteadySink::getCallbackAddress", kind, throwsBadAlloc,
                  asking<Sink>(kind, [](Sink& sink) { sink.getCallbackAddress(); }));
        table.add("VornSteadySink::getCallbackContainer, statistics", kind, allocatesNothing,
                  asking<Sink>(kind, [](Sink& sink) {
                      sink.getCallbackContainer();
                      sink.statistics();
                  }));
    }
}

} // namespace VornTest
