// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "ConnectionTestTools.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Process.h"
#include "Sandbox.h"

#include <VornServerSocket.h>
#include <VornSocketConnection.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Record = LogCapture::Record;

const char hostUnknown[] = "VornSocketConnection::establish: could not find host.";
const char connectFailed[] = "VornSocketConnection::establish: connection request failed.";
const auto none = std::optional<Failure>();

class Probe : public VornSocketConnection {
public:
    using VornSocketConnection::VornSocketConnection;

    using VornSocketConnection::m_bClientConnection;
    using VornSocketConnection::m_bConnected;
    using VornSocketConnection::m_bIdentify;
    using VornSocketConnection::m_bRaw;
    using VornSocketConnection::m_nPort;
    using VornSocketConnection::m_pClient;
    using VornSocketConnection::m_pSourceServer;
    using VornSocketConnection::m_sPortName;
    using VornSocketConnection::m_sServerName;

    int fd() const { return m_pClient != nullptr ? *static_cast<int*>(m_pClient) : -1; }

    void initialize() override { calls.emplace_back("initialize"); }

    std::vector<std::string> calls;
};

class VornSocketConnectionTest : public LeakCheckedTest {
protected:
    UniqueFd accept() const { return acceptClient(m_listener.get()); }

    /** Connects with what the listener does not answer within the test, so that a look-up decides. */
    std::string connectLog(const std::string& host, bool identify) {
        const LogCapture log(7);
        VornSocketConnection client(host, port, false, identify);
        if (const auto failed = failureOf([&] { client.establish(); }))
            return failed->text;
        const UniqueFd peer = accept();
        std::string result;
        for (const Record& record : log.records())
            result += std::to_string(record.level) + " " + record.text + "\n";
        return result;
    }

    int port = 0;

private:
    const UniqueFd m_listener = tcpListen("127.0.0.1", port);
};

std::string connectingText(const std::string& host, int port) {
    return "7 VornSocketConnection::establish: connecting to: " + host + ":" + std::to_string(port) + "\n";
}

void coverSystemFile(const std::string& path, const std::string& text) {
    const std::string own = "/opt/cover" + std::to_string(path.size());
    std::FILE* file = std::fopen(own.c_str(), "we");
    if (file == nullptr || std::fputs(text.c_str(), file) < 0 || std::fclose(file) != 0 ||
        ::mount(own.c_str(), path.c_str(), "none", MS_BIND, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

/** The question's own bytes followed by a pointer record which says that the name is "named.example". */
std::string pointerAnswer(const std::string& question) {
    return question.substr(0, 2) + bytes("81 80 00 01 00 01 00 00 00 00") +
           question.substr(12, question.find('\0', 12) + 5 - 12) +
           bytes("c0 0c 00 0c 00 01 00 00 00 3c 00 0f") + "\x05" + "named" + "\x07" + "example" +
           std::string(1, '\0');
}

} // namespace

/*
 * Identifies a numeric address where a name service answers instead of the hosts file. What it does to the
 * system's files it does in a name space of its own.
 */
KIT_ROLE(identifyByNameService) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
        return 4;
    coverSystemFile("/etc/nsswitch.conf", "hosts: dns\n");
    if (::access("/etc/resolv.conf", F_OK) == 0)
        coverSystemFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    int dnsPort = 53;
    const UniqueFd dns = udpSocket("127.0.0.1", dnsPort);
    int port = 0;
    const UniqueFd listener = tcpListen("127.0.0.1", port);
    WatchedThread server([&] {
        const Datagram question = receiveDatagramFrom(dns.get());
        std::cout << question.data.substr(12, question.data.find('\0', 12) - 12) << '\n';
        udpSendTo(dns.get(), question.address, question.port, pointerAnswer(question.data));
    });
    const LogCapture log(7);
    VornSocketConnection client("127.0.0.1", port, false, true);
    client.establish();
    server.join();
    for (const Record& record : log.records())
        std::cout << record.level << ' ' << record.text << '\n';
    const UniqueFd peer = acceptClient(listener.get());
    std::cout << "port " << port << " peer " << peerAddress(peer.get()) << '\n';
    return 0;
}

// Construction.

TEST_F(VornSocketConnectionTest, WhenMadeAsClient_HoldsItsArgumentsAndDoesNotConnect) {
    const CallTrace trace;
    const Probe client("host1", 4711, true, true);
    EXPECT_EQ(client.m_nPort, 4711);
    EXPECT_TRUE(client.m_bIdentify);
    EXPECT_TRUE(client.m_bRaw);
    EXPECT_TRUE(client.m_bClientConnection);
    EXPECT_FALSE(client.m_bConnected);
    EXPECT_EQ(client.m_pClient, nullptr);
    EXPECT_EQ(client.m_pSourceServer, nullptr);
    EXPECT_THAT(trace.records(), IsEmpty());
    const Probe other("host1", 4711, false, false);
    EXPECT_FALSE(other.m_bIdentify);
    EXPECT_FALSE(other.m_bRaw);
}

TEST_F(VornSocketConnectionTest, WhenMadeAroundASocket_IsConnectedFromBirth) {
    VornServerSocket server(4711, 5, "127.0.0.1");
    SocketPair pair = tcpPair();
    const int fd = pair.ours.release();
    Probe accepted(fd, "peer", &server, false);
    EXPECT_TRUE(accepted.m_bConnected);
    EXPECT_FALSE(accepted.m_bClientConnection);
    EXPECT_FALSE(accepted.m_bRaw);
    EXPECT_EQ(accepted.m_nPort, 0);
    EXPECT_FALSE(accepted.m_bIdentify);
    EXPECT_EQ(accepted.m_pSourceServer, &server);
    EXPECT_EQ(accepted.getRemoteName(), "peer");
    EXPECT_EQ(accepted.fd(), fd);
    EXPECT_THAT(accepted.calls, IsEmpty());
}

TEST_F(VornSocketConnectionTest, TheClientFlagOfAnAcceptedSocketIsKept) {
    SocketPair pair = tcpPair();
    const Probe accepted(pair.ours.release(), "peer", nullptr, true);
    EXPECT_TRUE(accepted.m_bClientConnection);
}

TEST_F(VornSocketConnectionTest, TheSocketLayersStartSucceedsAndItsEndDoesNothing) {
    const CallTrace trace;
    EXPECT_TRUE(VNETInitWinsock());
    VNETFinitWinsock();
    EXPECT_TRUE(VNETInitWinsock());
    EXPECT_THAT(trace.records(), IsEmpty());
}

// Establishing.

TEST_F(VornSocketConnectionTest, WhenEstablishedAgain_DoesNothing) {
    Probe client("127.0.0.1", port, false, false);
    client.establish();
    const CallTrace trace;
    client.establish();
    EXPECT_THAT(trace.records(), IsEmpty());
    EXPECT_THAT(client.calls, ElementsAre("initialize"));
}

TEST_F(VornSocketConnectionTest, WhenConnectedWithoutASocket_EstablishingDoesNothing) {
    Probe client("127.0.0.1", port, false, false);
    client.m_bConnected = true;
    const CallTrace trace;
    client.establish();
    EXPECT_THAT(trace.records(), IsEmpty());
    EXPECT_EQ(rawWrite(client, "abc"), raw(0, ENOTCONN));
    std::string data = "###";
    EXPECT_EQ(rawRead(client, data, 3, true), raw(0, ENOTCONN));
    EXPECT_EQ(peek(client, 3), peeked(false, 0, ENOTCONN));
}

TEST_F(VornSocketConnectionTest, TheSocketIsMadeFirstAndClosedOnExec) {
    const CallTrace trace;
    Probe client("localhost", port, false, false);
    client.establish();
    EXPECT_THAT(trace.names(), ElementsAre("socket", "fcntl", "gethostbyname_r", "connect"));
    const CallRecord socket = trace.records("socket").at(0);
    EXPECT_EQ(socket.argument, AF_INET);
    EXPECT_EQ(socket.second, SOCK_STREAM);
    EXPECT_EQ(socket.third, 0);
    EXPECT_TRUE(isCloseOnExec(client.fd()));
}

TEST_F(VornSocketConnectionTest, OfThePortTheLow16BitsCount) {
    for (const int number : {port + 0x10000, port - 0x10000, port + 0x7FFF0000}) {
        VornSocketConnection client("127.0.0.1", number, false, false);
        EXPECT_EQ(failureOf([&] { client.establish(); }), none) << number;
        const UniqueFd peer = accept();
    }
}

// Which host is meant.

TEST_F(VornSocketConnectionTest, ANameIsLookedUpAndItsOfficialNameLogged) {
    useHostsFile("127.0.0.1 official alias\n");
    EXPECT_EQ(connectLog("alias", false), connectingText("official", port));
    EXPECT_EQ(connectLog("alias", true), connectingText("official", port));
}

TEST_F(VornSocketConnectionTest, OfSeveralAddressesTheFirstIsTaken) {
    useHostsFile("127.0.0.9 twofold\n127.0.0.8 twofold\n");
    int other = port;
    const UniqueFd listener = tcpListen("127.0.0.9", other);
    VornSocketConnection client("twofold", port, false, false);
    client.establish();
    const UniqueFd peer = acceptClient(listener.get());
    EXPECT_EQ(localAddress(peer.get()), "127.0.0.9");
}

TEST_F(VornSocketConnectionTest, OneLetterAnywhereMakesAName) {
    useHostsFile("127.0.0.1 123abc\n127.0.0.1 a.b.c\n127.0.0.1 10.0.0.x\n");
    for (const char* host : {"123abc", "a.b.c", "10.0.0.x"}) {
        const CallTrace trace;
        EXPECT_EQ(connectLog(host, false), connectingText(host, port));
        EXPECT_EQ(trace.calls("gethostbyname_r"), 1) << host;
        EXPECT_EQ(trace.calls("gethostbyaddr_r"), 0) << host;
    }
}

TEST_F(VornSocketConnectionTest, ANumericAddressIsNotLookedUp) {
    const CallTrace trace;
    EXPECT_EQ(connectLog("127.0.0.1", false), "");
    EXPECT_EQ(trace.calls("gethostbyname_r"), 0);
    EXPECT_EQ(trace.calls("gethostbyaddr_r"), 0);
}

TEST_F(VornSocketConnectionTest, ShortFormsOfANumericAddressAreTaken) {
    EXPECT_EQ(connectLog("127.1", false), "");
    EXPECT_EQ(connectLog("2130706433", false), "");
}

TEST_F(VornSocketConnectionTest, AnUnknownNameIsAttemptedAsTheLocalHost) {
    EXPECT_EQ(connectLog("no-such-host.invalid", false), "");
}

TEST_F(VornSocketConnectionTest, WhenTheHostIsToBeIdentified_AnUnknownNameIsRefused) {
    VornSocketConnection client("no-such-host.invalid", port, false, true);
    const auto failed = failureOf([&] { client.establish(); });
    ASSERT_TRUE(failed.has_value());
    EXPECT_EQ(failed->text, hostUnknown);
    EXPECT_EQ(client.getSocket(), nullptr);
}

TEST_F(VornSocketConnectionTest, TheCodeOfAnUnknownHostIsWhatTheLookUpLeftInErrno) {
    for (const int code : {ETIMEDOUT, 0}) {
        VornSocketConnection client("localhost", port, false, true);
        FaultRule fault("gethostbyname_r", code);
        fault.returning(0);
        EXPECT_EQ(failureOf([&] { client.establish(); }), failure(hostUnknown, code));
        EXPECT_EQ(client.getSocket(), nullptr);
    }
    VornSocketConnection numeric("127.0.0.1", port, false, true);
    FaultRule reverse("gethostbyaddr_r", ECONNREFUSED);
    reverse.returning(0);
    EXPECT_EQ(failureOf([&] { numeric.establish(); }), failure(hostUnknown, ECONNREFUSED));
}

TEST_F(VornSocketConnectionTest, WhenANumericAddressIsToBeIdentified_TheHostsFileDoesNotAnswer) {
    // It knows 127.0.0.1; but it is asked for an address of eight bytes, and it has none.
    useHostsFile("127.0.0.1 localhost\n");
    const LogCapture log(7);
    const CallTrace trace;
    VornSocketConnection client("127.0.0.1", port, false, true);
    const auto failed = failureOf([&] { client.establish(); });
    ASSERT_TRUE(failed.has_value());
    EXPECT_EQ(failed->text, hostUnknown);
    EXPECT_EQ(client.getSocket(), nullptr);
    EXPECT_THAT(trace.names(), ElementsAre("socket", "fcntl", "gethostbyaddr_r", "close"));
    EXPECT_EQ(trace.records("gethostbyaddr_r").at(0).second, AF_INET);
    EXPECT_THAT(log.records(),
                ElementsAre(Record{7, "VornSocketConnection::establish: using gethostbyaddr."}));
}

TEST_F(VornSocketConnectionTest, WhenANumericAddressIsToBeIdentified_ANameServicesAnswerIsLogged) {
    needSandbox("its own system files");
    ChildProcess child = ChildProcess::spawnRole("identifyByNameService");
    const std::string output = child.readAllOutput();
    EXPECT_EQ(child.wait(), 0) << child.readAllErrors();
    const std::string usedPort =
        output.substr(output.find("port ") + 5, output.find(" peer") - output.find("port ") - 5);
    EXPECT_EQ(output, "\x01"
                      "1\x01"
                      "0\x01"
                      "0\x03"
                      "127\x07in-addr\x04"
                      "arpa\n"
                      "7 VornSocketConnection::establish: using gethostbyaddr.\n" +
                          connectingText("named.example", std::stoi(usedPort)) + "port " + usedPort +
                          " peer 127.0.0.1\n");
}

TEST_F(VornSocketConnectionTest, AHostTextIsCutAt8191Bytes) {
    const std::string host = "127.0.0.9";
    // The letter which would make it a name stands after the cut.
    VornSocketConnection cut(host + std::string(8191 - host.size(), ' ') + "x", port, false, true);
    const CallTrace trace;
    EXPECT_TRUE(failureOf([&] { cut.establish(); }).has_value());
    EXPECT_EQ(trace.calls("gethostbyaddr_r"), 1);
    EXPECT_EQ(trace.calls("gethostbyname_r"), 0);
    VornSocketConnection whole(host + std::string(8190 - host.size(), ' ') + "x", port, false, true);
    EXPECT_TRUE(failureOf([&] { whole.establish(); }).has_value());
    // A name of that length takes the resolver several attempts.
    EXPECT_GE(trace.calls("gethostbyname_r"), 1);
    EXPECT_EQ(trace.calls("gethostbyaddr_r"), 1);
}

TEST_F(VornSocketConnectionTest, AnEmptyOrInvalidHostIsTheBroadcastAddressAndFailsToConnect) {
    for (const char* host : {"", "127.0.0.1.1"}) {
        const CallTrace trace;
        VornSocketConnection client(host, port, false, false);
        const auto failed = failureOf([&] { client.establish(); });
        EXPECT_EQ(failed, failure(connectFailed, trace.records("connect").at(0).error)) << host;
        EXPECT_NE(failed->code, 0) << host;
        EXPECT_EQ(trace.calls("gethostbyname_r"), 0) << host;
    }
}

// Failures to establish.

TEST_F(VornSocketConnectionTest, WhenNobodyListens_PeekLineFindsNoLineInAnOldBuffer) {
    VornSocketConnection client("127.0.0.1", unusedTcpPort(), false, false);
    char line[64] = "old line\r\n";
    int size = sizeof(line);
    int error = untouched;
    EXPECT_FALSE(client.peekLine(line, size, error));
    EXPECT_EQ(size, 0);
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_EQ(client.getLine(line, sizeof(line), error), nullptr);
    EXPECT_EQ(error, ECONNREFUSED);
}

// Names.

TEST_F(VornSocketConnectionTest, ServerNameIsTheLocalAddressAndStaysWhereThatIsUnknown) {
    int other = 0;
    const UniqueFd listener = tcpListen("127.0.0.7", other);
    const UniqueFd far = tcpConnect("127.0.0.7", other);
    Probe accepted(acceptClient(listener.get()).release(), "peer", nullptr, false);
    EXPECT_EQ(accepted.getServerName(), "127.0.0.7");
    EXPECT_EQ(accepted.m_sServerName, "127.0.0.7");
    accepted.m_sServerName = "as it was";
    const FaultRule fault("getsockname", ENOBUFS);
    EXPECT_EQ(accepted.getServerName(), "as it was");
}

TEST_F(VornSocketConnectionTest, PortNameOfAClientIsZero) {
    Probe client("127.0.0.1", port, false, false);
    EXPECT_EQ(client.getPortName(), "0");
    client.establish();
    EXPECT_EQ(client.getPortName(), "0");
    EXPECT_EQ(client.m_sPortName, "0");
}

TEST_F(VornSocketConnectionTest, PortNameOfAnAcceptedConnectionIsTheServersPort) {
    class Server : public VornServerSocket {
    public:
        using VornServerSocket::VornServerSocket;

        int getPort() override { return -5; }
    };

    VornServerSocket plainServer(4711, 5, "127.0.0.1");
    SocketPair pair = tcpPair();
    Probe accepted(pair.ours.release(), "peer", &plainServer, false);
    EXPECT_EQ(accepted.getPortName(), "4711");
    EXPECT_EQ(accepted.m_sPortName, "4711");
    Server derivedServer(4711, 5, "127.0.0.1");
    accepted.m_pSourceServer = &derivedServer;
    EXPECT_EQ(accepted.getPortName(), "-5");
}

// Programs of somebody else as peers.

TEST_F(VornSocketConnectionTest, ARequestOfCurlIsReadLineByLine) {
    ChildProcess curl = ChildProcess::spawn({"curl", "--silent", "--show-error", "--max-time", "30",
                                             "http://127.0.0.1:" + std::to_string(port) + "/some/path"});
    VornSocketConnection connection(accept().release(), "curl", nullptr, false);
    char line[1024];
    int error = untouched;
    EXPECT_STREQ(connection.getLine(line, sizeof(line), error), "GET /some/path HTTP/1.1");
    std::string headers;
    while (connection.getLine(line, sizeof(line), error) != nullptr && *line != '\0')
        headers += line + std::string("\n");
    EXPECT_EQ(error, 0);
    EXPECT_THAT(headers, HasSubstr("Host: 127.0.0.1:" + std::to_string(port) + "\n"));
    EXPECT_THAT(headers, HasSubstr("User-Agent: curl/"));
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nConnection: close\r\n\r\nhello";
    EXPECT_EQ(rawWrite(connection, answer), raw(static_cast<long>(answer.size()), 0));
    connection.disconnect();
    EXPECT_EQ(curl.readAllOutput(), "hello");
    EXPECT_EQ(curl.wait(), 0) << curl.readAllErrors();
}
