// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A thread whose cancellation is pending as it closes or destroys what it has.
 */

#include <VornPipeConnection.h>
#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornSocketConnection.h>
#include <VornUDPServerSocket.h>
#include <VornUDPSocketConnection.h>

#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Process.h"
#include "ServerTestSupport.h"

#include <functional>
#include <memory>

using namespace VornTest;
using VornNet::VornPipeConnection;
using VornNet::VornPipeServer;
using VornNet::VornServerSocket;
using VornNet::VornSocketConnection;
using VornNet::VornUDPServerSocket;

namespace {

constexpr int port = 6601;

/** What is opened, and is closed or destroyed when it is let go of. */
struct Closed {
    const char* name;
    std::function<std::function<void()>()> open; ///< the result closes it

    friend void PrintTo(const Closed& row, std::ostream* out) { *out << row.name; }
};

int anySocket() {
    int number = 0;
    return udpSocket("127.0.0.1", number).release();
}

template <typename Object, typename... Arguments>
Closed destroyed(const char* name, Arguments... arguments) {
    return {name, [=] {
                auto* object = new Object(arguments...);
                return [object] { delete object; };
            }};
}

template <typename Server, typename... Arguments>
Closed closed(const char* name, Arguments... arguments) {
    return {name, [=] {
                auto server = std::make_shared<Server>(arguments...);
                return [server] { server->close(); };
            }};
}

const std::vector<Closed> rows{
    destroyed<Opened<VornServerSocket>>("TcpServer", port, 5, "127.0.0.1"),
    destroyed<Opened<VornUDPServerSocket>>("UdpServer", port, "127.0.0.1", 100U),
    destroyed<VornPipeServer>("PipeServer", "cancelled"),
    closed<Opened<VornServerSocket>>("TcpServerByClose", port, 5, "127.0.0.1"),
    closed<Opened<VornUDPServerSocket>>("UdpServerByClose", port, "127.0.0.1", 100U),
    closed<VornPipeServer>("PipeServerByClose", "cancelled"),
    {"TcpConnection",
     [] {
         auto* connection = new VornSocketConnection(anySocket(), "", nullptr, false);
         return [connection] { delete connection; };
     }},
    {"PipeConnection",
     [] {
         int number = anySocket();
         auto* connection = new VornPipeConnection(&number, 7);
         return [connection] { delete connection; };
     }},
};

class PendingCancellation : public LeakCheckedTest, public testing::WithParamInterface<Closed> {};

} // namespace

INSTANTIATE_TEST_SUITE_P(Rows, PendingCancellation, testing::ValuesIn(rows),
                         [](const auto& row) { return row.param.name; });

KIT_ROLE(openWithAPendingCancellation) {
    ::close(STDIN_FILENO);
    const int before = openDescriptors();
    bool isOpen = false;
    WatchedThread thread([&] {
        ::pthread_cancel(::pthread_self());
        const VornPipeServer server("cancelled");
        isOpen = true;
        ::pthread_testcancel();
    });
    if (!thread.join() || !isOpen)
        return 1;
    return openDescriptors() == before ? 0 : 2;
}

TEST(PendingCancellationOfAnOpening, TakesEffectOnlyWhenTheSocketIsOffTheStandardStreams) {
    // A program of its own: in a forked child the thread sanitizer would allow no thread.
    EXPECT_EQ(ChildProcess::spawnRole("openWithAPendingCancellation").wait(), 0);
}

TEST_P(PendingCancellation, TakesEffectOnlyWhenEverythingIsClosed) {
    const int before = openDescriptors();
    int after = -1;
    bool isClosed = false;
    WatchedThread thread([&] {
        const std::function<void()> close = GetParam().open();
        ::pthread_cancel(::pthread_self());
        close();
        isClosed = true;
        ::pthread_testcancel();
        ADD_FAILURE() << "the cancellation has got lost";
    });
    EXPECT_TRUE(thread.join());
    after = openDescriptors();
    EXPECT_TRUE(isClosed);
    EXPECT_EQ(thread.exceptionText(), "cancelled");
    EXPECT_EQ(after, before);
}
