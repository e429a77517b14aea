// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ConnectionTestTools.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Sandbox.h"

#include <VornUDPSocketConnection.h>

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace VornNet;
using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Record = LogCapture::Record;

class Probe : public VornUDPSocketConnection {
public:
    using VornUDPSocketConnection::VornUDPSocketConnection;

    using VornUDPSocketConnection::m_bClientConnection;
    using VornUDPSocketConnection::m_bConnected;
    using VornUDPSocketConnection::m_bIdentify;
    using VornUDPSocketConnection::m_nPort;
};

Record sendFailure(int error, const std::string& host) {
    return {1, "VornUDPSocketConnection::transmit: failed to send data (rc:" + std::to_string(error) +
                   ") to " + host};
}

class VornUDPSocketConnectionTest : public LeakCheckedTest {
protected:
    std::string received() const { return hex(receiveDatagram(m_receiver.get())); }

    /** Sends an int to the receiver under this host name; what is logged up to level 7, and the datagram. */
    std::vector<std::string> sendTo(const std::string& host, bool identify) {
        const LogCapture log(7);
        VornUDPSocketConnection connection(host, port, identify);
        connection.transfer(7);
        EXPECT_TRUE(connection.transmit()) << host;
        std::vector<std::string> result;
        for (const Record& record : log.records())
            result.push_back(std::to_string(record.level) + " " + record.text);
        result.push_back(received());
        return result;
    }

    int port = 0;

private:
    const UniqueFd m_receiver = udpSocket("0.0.0.0", port);
};

const char seven[] = "00 00 00 07";

} // namespace

// Construction.

TEST_F(VornUDPSocketConnectionTest, ADerivedClassMayOverrideTheRawWriteAndCallItsBase) {
    class Watching : public VornUDPSocketConnection {
    public:
        using VornUDPSocketConnection::transfer;
        using VornUDPSocketConnection::VornUDPSocketConnection;

        long transfer(const char* buf, long bufLen, long* error) override {
            ++m_writes;
            return VornUDPSocketConnection::transfer(buf, bufLen, error);
        }

        int m_writes = 0;
    };

    Watching connection("127.0.0.1", port, false);
    connection.transfer(7);
    EXPECT_EQ(connection.m_writes, 1);
    EXPECT_EQ(connection.size(), 4);
}

TEST_F(VornUDPSocketConnectionTest, WhenMade_HoldsItsArgumentsAndNothingElse) {
    const CallTrace trace;
    Probe connection("host1", 4711, true);
    EXPECT_EQ(connection.m_nPort, 4711);
    EXPECT_TRUE(connection.m_bIdentify);
    EXPECT_EQ(connection.getRemoteName(), "host1");
    EXPECT_TRUE(connection.m_bClientConnection);
    EXPECT_FALSE(connection.m_bConnected);
    EXPECT_EQ(connection.size(), -1);
    EXPECT_EQ(connection.buf(), nullptr);
    EXPECT_THAT(trace.records(), IsEmpty());
    const Probe other("host2", -1, false);
    EXPECT_EQ(other.m_nPort, -1);
    EXPECT_FALSE(other.m_bIdentify);
}

// Sending.

TEST_F(VornUDPSocketConnectionTest, NothingIsSentBeforeTransmit) {
    const CallTrace trace;
    VornUDPSocketConnection connection("127.0.0.1", port, false);
    connection.transfer(7);
    connection.disconnect();
    EXPECT_THAT(trace.records(), IsEmpty());
}

TEST_F(VornUDPSocketConnectionTest, EverythingWrittenIsOneDatagram) {
    VornUDPSocketConnection connection("127.0.0.1", port, false);
    connection.transfer(1L);
    connection.transfer(VornString("abc"));
    connection.transferACK();
    EXPECT_TRUE(connection.transmit());
    EXPECT_EQ(received(), "00 00 00 01 00 00 00 00 00 00 00 03 61 62 63 00 01 00 00");
}

TEST_F(VornUDPSocketConnectionTest, TransmittingAgainSendsTheSameAgain) {
    VornUDPSocketConnection connection("127.0.0.1", port, false);
    connection.transfer(7);
    EXPECT_TRUE(connection.transmit());
    EXPECT_TRUE(connection.transmit());
    EXPECT_EQ(received(), seven);
    EXPECT_EQ(received(), seven);
    EXPECT_EQ(connection.size(), 4);
    connection.transfer(8);
    EXPECT_TRUE(connection.transmit());
    EXPECT_EQ(received(), "00 00 00 07 00 00 00 08");
}

TEST_F(VornUDPSocketConnectionTest, WhatHasBeenReadBackIsSentAllTheSame) {
    VornUDPSocketConnection connection("127.0.0.1", port, false);
    connection.transfer(7);
    EXPECT_EQ(connection.receiveInt(), 7);
    EXPECT_TRUE(connection.transmit());
    EXPECT_EQ(received(), seven);
}

TEST_F(VornUDPSocketConnectionTest, AnEmptyMessageIsAnEmptyDatagram) {
    VornUDPSocketConnection connection("127.0.0.1", port, false);
    EXPECT_EQ(rawWrite(connection, ""), raw(0, 0));
    EXPECT_TRUE(connection.transmit());
    EXPECT_EQ(received(), "");
}

TEST_F(VornUDPSocketConnectionTest, TheLargestDatagramIsSent) {
    VornUDPSocketConnection connection("127.0.0.1", port, false);
    const std::string message(65507, 'm');
    EXPECT_EQ(rawWrite(connection, message), raw(65507, 0));
    EXPECT_TRUE(connection.transmit());
    EXPECT_EQ(received(), hex(message));
}

TEST_F(VornUDPSocketConnectionTest, TransmitMakesASocketForBroadcastsAndClosesIt) {
    VornUDPSocketConnection connection("127.0.0.1", port, false);
    connection.transfer(7);
    const CallTrace trace;
    EXPECT_TRUE(connection.transmit());
    EXPECT_THAT(trace.names(), ElementsAre("socket", "fcntl", "setsockopt", "sendto", "close"));
    const CallRecord socket = trace.records("socket").at(0);
    EXPECT_EQ(socket.argument, AF_INET);
    EXPECT_EQ(socket.second, SOCK_DGRAM);
    EXPECT_EQ(socket.third, 0);
    const CallRecord option = trace.records("setsockopt").at(0);
    EXPECT_EQ(option.second, SOL_SOCKET);
    EXPECT_EQ(option.third, SO_BROADCAST);
    const CallRecord sent = trace.records("sendto").at(0);
    EXPECT_EQ(sent.second, 4);
    EXPECT_EQ(sent.third, 0);
}

TEST_F(VornUDPSocketConnectionTest, ABroadcastAddressIsAllowed) {
    EXPECT_THAT(sendTo("127.255.255.255", false), ElementsAre(seven));
}

TEST_F(VornUDPSocketConnectionTest, WhenNobodyReceives_TransmitSucceeds) {
    VornUDPSocketConnection connection("127.0.0.1", unusedUdpPort(), false);
    connection.transfer(7);
    EXPECT_TRUE(connection.transmit());
    EXPECT_TRUE(connection.transmit());
}

// Which host is meant.

TEST_F(VornUDPSocketConnectionTest, ANumericAddressIsNotLookedUp) {
    const CallTrace trace;
    EXPECT_THAT(sendTo("127.0.0.1", false), ElementsAre(seven));
    EXPECT_THAT(sendTo("127.1", false), ElementsAre(seven));
    EXPECT_EQ(trace.calls("gethostbyname_r"), 0);
    EXPECT_EQ(trace.calls("gethostbyaddr_r"), 0);
}

TEST_F(VornUDPSocketConnectionTest, ANameIsLookedUpWithoutALogRecord) {
    useHostsFile("127.0.0.1 localhost\n127.0.0.1 1a\n");
    const CallTrace trace;
    EXPECT_THAT(sendTo("localhost", false), ElementsAre(seven));
    EXPECT_THAT(sendTo("localhost", true), ElementsAre(seven));
    EXPECT_THAT(sendTo("1a", false), ElementsAre(seven));
    EXPECT_EQ(trace.calls("gethostbyname_r"), 3);
    EXPECT_EQ(trace.calls("gethostbyaddr_r"), 0);
}

TEST_F(VornUDPSocketConnectionTest, AnUnknownNameIsSentToTheLocalHost) {
    EXPECT_THAT(sendTo("no-such-host.invalid", false), ElementsAre(seven));
    EXPECT_THAT(sendTo("no-such-host.invalid", true), ElementsAre(seven));
}

TEST_F(VornUDPSocketConnectionTest, WhenANumericAddressIsToBeIdentified_TheLookUpsResultIsNotUsed) {
    const CallTrace trace;
    EXPECT_THAT(sendTo("127.0.0.1", true),
                ElementsAre("7 VornUDPSocketConnection::transmit: using gethostbyaddr.", seven));
    ASSERT_EQ(trace.calls("gethostbyaddr_r"), 1);
    EXPECT_EQ(trace.records("gethostbyaddr_r").at(0).second, AF_INET);
    EXPECT_EQ(trace.records("gethostbyaddr_r").at(0).third, 8) << "which no address of the hosts file has";
    EXPECT_EQ(trace.calls("gethostbyname_r"), 0);
}

TEST_F(VornUDPSocketConnectionTest, AnEmptyOrInvalidHostIsTheBroadcastAddress) {
    // Which cannot be reached here, for the loopback interface is the only one.
    for (const char* host : {"", "127.0.0.1.1"}) {
        const LogCapture log(1);
        const CallTrace trace;
        VornUDPSocketConnection connection(host, port, false);
        connection.transfer(7);
        EXPECT_FALSE(connection.transmit());
        EXPECT_THAT(log.records(), ElementsAre(sendFailure(ENETUNREACH, host)));
        EXPECT_EQ(trace.calls("gethostbyname_r"), 0);
    }
    expectDescriptorLeak(2);
}

// Failures.

TEST_F(VornUDPSocketConnectionTest, WhenACallFails_TransmitFailsLogsTheErrorAndLeavesTheDescriptorOpen) {
    const struct {
        const char* function;
        int error;
        Record record;
        std::vector<std::string> calls;
    } rows[] = {
        {"socket",
         EMFILE,
         {1, "VornUDPSocketConnection::transmit: failed to create socket. (rc=24)"},
         {"socket"}},
        {"setsockopt",
         EACCES,
         {1, "VornUDPSocketConnection::transmit: failed to set UDP options. (rc=13)"},
         {"socket", "fcntl", "setsockopt"}},
        {"sendto", ENOBUFS, sendFailure(ENOBUFS, "127.0.0.1"), {"socket", "fcntl", "setsockopt", "sendto"}},
    };

    VornUDPSocketConnection connection("127.0.0.1", port, false);
    connection.transfer(7);
    for (const auto& row : rows) {
        const LogCapture log(9);
        const FaultRule fault(row.function, row.error);
        const CallTrace trace;
        EXPECT_FALSE(connection.transmit()) << row.function;
        EXPECT_EQ(trace.names(), row.calls);
        EXPECT_THAT(log.records(), ElementsAre(row.record));
        if (row.calls.size() > 1) {
            EXPECT_TRUE(isCloseOnExec(static_cast<int>(trace.records("socket").at(0).result)));
        }
    }
    expectDescriptorLeak(2);
    EXPECT_TRUE(connection.transmit());
    EXPECT_EQ(received(), seven);
}

TEST_F(VornUDPSocketConnectionTest, WhenNothingWasWritten_TransmitFailsInSending) {
    const LogCapture log(9);
    VornUDPSocketConnection connection("127.0.0.1", port, false);
    const CallTrace trace;
    EXPECT_FALSE(connection.transmit());
    expectDescriptorLeak(1);
    const CallRecord sent = trace.records("sendto").at(0);
    EXPECT_EQ(sent.second, -1);
    EXPECT_NE(sent.error, 0);
    EXPECT_THAT(log.records(), ElementsAre(sendFailure(sent.error, "127.0.0.1")));
}
