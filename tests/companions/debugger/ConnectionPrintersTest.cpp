// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "GdbRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::ElementsAre;

TEST_F(GdbPrinters, TcpConnectionOfAClient_ShowsWhereItLeadsAndItsState) {
    EXPECT_THAT(
        show("sockets", {"unused", "base"}),
        ElementsAre("TCP connection to db.example:5023, not connected, service stock, no references",
                    "TCP connection to 127.0.0.1:5023, connected, descriptor 4, raw, no references, of class "
                    "(anonymous namespace)::SocketProbe"));
}

TEST_F(GdbPrinters, TcpConnectionThatIsBlockedInConnect_IsConnecting) {
    EXPECT_EQ(showOne("sockets", "(VornNet::VornSocketConnection&)connecting"),
              "TCP connection to 127.0.0.1:5023, connecting, descriptor 77, raw, no references, of class "
              "(anonymous namespace)::SocketProbe");
}

TEST_F(GdbPrinters, TcpConnectionOfAServer_ShowsThePeerAndThePort) {
    EXPECT_THAT(
        show("sockets", {"peer", "named"}),
        ElementsAre(
            "TCP connection, accepted on port 5023, connected, descriptor 5, local access, no references",
            "TCP connection from monitor.example, accepted, connected, descriptor 6, no references"));
}

TEST_F(GdbPrinters, SslConnection_ShowsThatItHasNoSocket) {
    EXPECT_THAT(show("sockets", {"secure", "marked"}),
                ElementsAre("SSL connection to 10.0.0.5:443, not connected, no references",
                            "SSL connection to 10.0.0.5:443, connected without a socket, no references"));
}

TEST_F(GdbPrinters, PipeConnection_ShowsItsNameAndItsState) {
    EXPECT_THAT(
        show("pipes", {"unused", "client", "accepted"}),
        ElementsAre("pipe connection to quorax1f3a, not connected, no references",
                    "pipe connection to quorax1f3a, connected, descriptor 4, no references",
                    "pipe connection, accepted, connected, descriptor 5, access rights 7, local access, "
                    "no references"));
}

TEST_F(GdbPrinters, ConnectionOfAClassOfTheProgram_ShowsTheLibrarysPartAndItsOwnFields) {
    EXPECT_THAT(show("pipes", {"logged", "loggedBase"}),
                ElementsAre("{<VornNet::VornPipeConnection> = pipe connection to quorax2, not connected, no "
                            "references, of class (anonymous namespace)::LoggedConnection, m_nWrites = 3}",
                            "pipe connection to quorax2, not connected, no references, of class (anonymous "
                            "namespace)::LoggedConnection"));
}

TEST_F(GdbPrinters, BufferConnection_ShowsWhatIsWaitingInIt) {
    EXPECT_THAT(
        show("pipes", {"empty", "message", "received"}),
        ElementsAre("buffer connection, nothing written, no references",
                    "buffer connection, 16 bytes written, 8 waiting: 00 00 00 0c 00 00 00 00, capacity "
                    "8192, no references",
                    "buffer connection from 10.0.0.9, 20 bytes written, 20 waiting: 00 00 00 00 00 00 00 "
                    "00 00 00 00 00 00 00 00 00 ..., capacity 8192, no references"));
}

TEST_F(GdbPrinters, UdpConnection_ShowsTheMessageAndWhereItGoes) {
    EXPECT_EQ(showOne("pipes", "datagram"),
              "UDP connection to 10.0.0.5:5024, 7 bytes written, 7 waiting: 00 00 "
              "00 03 61 62 63, capacity 8192, no references");
}

TEST_F(GdbPrinters, TcpServer_ShowsItsAddressAndWhoWaits) {
    EXPECT_THAT(
        show("servers", {"*tcp", "closedTcp"}),
        ElementsAre("TCP server on 127.0.0.1:5040, listening, descriptor 9, a thread is waiting, backlog "
                    "5, 1 reference",
                    "TCP server on *:5042, closed, backlog 5, no references"));
}

TEST_F(GdbPrinters, UdpServer_ShowsItsAddressAndWhoWaits) {
    EXPECT_EQ(showOne("servers", "*udp"), "UDP server on *:5041, bound, descriptor 11, a thread is waiting, "
                                          "datagrams up to 1500 bytes, 1 reference");
}

TEST_F(GdbPrinters, PipeServer_ShowsItsNameAndWhoWaits) {
    EXPECT_THAT(
        show("servers", {"*pipe", "idlePipe", "closedPipe"}),
        ElementsAre(
            "pipe server desk, listening, descriptor 5, a thread is waiting, 1 reference",
            "pipe server idle, listening, descriptor 8, access privileges 1, group vorn, no references",
            "pipe server closed, closed, no references"));
}

TEST_F(GdbPrinters, SslServer_ShowsItsCertificate) {
    EXPECT_EQ(showOne("servers", "ssl"), "SSL server on *:443, closed, certificate server.pem, key \"/etc/my "
                                         "keys/server.key\", no references");
}

TEST_F(GdbPrinters, ServerThatIsBeingClosed_ShowsBothThreads) {
    Lines arguments = executing({"break stopHere", "run servers", "break VornNet::ServerGate::Closing::close",
                                 "continue", "frame function showServers", "output *tcp"});
    arguments.insert(arguments.end(), {"--args", VORNTEST_DEBUGGEE});
    EXPECT_THAT(
        runGdb(arguments).output,
        testing::HasSubstr("TCP server on 127.0.0.1:5040, listening, descriptor 9, a thread is waiting, "
                           "a thread is closing it, backlog 5, 1 reference"));
}
