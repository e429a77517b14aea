// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * The same cases for every kind of connection, each against plain sockets or plain memory. A kind is one line
 * in the table below and the class which that line names.
 */

#include "ConnectionTestTools.h"
#include "LeakCheckedTest.h"
#include "Memory.h"
#include "Sandbox.h"

#include <VornBufferConnection.h>
#include <VornPipeConnection.h>
#include <VornSSLSocketConnection.h>
#include <VornSmartPointer.h>
#include <VornSocketConnection.h>
#include <VornUDPSocketConnection.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <optional>
#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;

namespace {

const auto none = std::optional<Failure>();

/** A connection of the library and its other end. A test either writes or reads. */
class PlainLink {
public:
    PlainLink() = default;
    PlainLink(const PlainLink&) = delete;
    PlainLink& operator=(const PlainLink&) = delete;
    virtual ~PlainLink() = default;

    /** The connection to write to. */
    virtual VornConnection& writer() = 0;

    /** Ends the writing; everything that has come out at the other end. */
    virtual std::string written() = 0;

    /** A connection at which these bytes have arrived, and after them the end. */
    virtual VornConnection& reader(const std::string& incoming) = 0;
};

/** A stream between a connection and a plain socket. */
class StreamLink : public PlainLink {
public:
    VornConnection& writer() override { return connected(); }

    std::string written() override {
        connected().disconnect();
        return receiveToEnd(m_peer.get());
    }

    VornConnection& reader(const std::string& incoming) override {
        VornConnection& connection = connected();
        sendAll(m_peer.get(), incoming);
        ::shutdown(m_peer.get(), SHUT_WR);
        return connection;
    }

protected:
    virtual VornSmartPointer<VornConnection> connect(UniqueFd& peer) = 0;

private:
    VornConnection& connected() {
        if (m_connection == nullptr)
            m_connection = connect(m_peer);
        return *m_connection;
    }

    UniqueFd m_peer;
    VornSmartPointer<VornConnection> m_connection;
};

std::string conformancePath() {
    return pipePath("conformance");
}

class PipeClientLink : public StreamLink {
    VornSmartPointer<VornConnection> connect(UniqueFd& peer) override {
        const UniqueFd listener = unixListen(conformancePath());
        VornSmartPointer<VornConnection> result(new VornPipeConnection("conformance"));
        result->establish();
        ::unlink(conformancePath().c_str());
        peer = acceptClient(listener.get());
        return result;
    }
};

class PipeAcceptedLink : public StreamLink {
    VornSmartPointer<VornConnection> connect(UniqueFd& peer) override {
        SocketPair pair = unixPair(conformancePath());
        peer = std::move(pair.peer);
        int fd = pair.ours.release();
        return new VornPipeConnection(&fd, 7);
    }
};

class TcpClientLink : public StreamLink {
    VornSmartPointer<VornConnection> connect(UniqueFd& peer) override {
        int port = 0;
        const UniqueFd listener = tcpListen("127.0.0.1", port);
        VornSmartPointer<VornConnection> result(new VornSocketConnection("127.0.0.1", port, false, false));
        result->establish();
        peer = acceptClient(listener.get());
        return result;
    }
};

class TcpAcceptedLink : public StreamLink {
    VornSmartPointer<VornConnection> connect(UniqueFd& peer) override {
        SocketPair pair = tcpPair();
        peer = std::move(pair.peer);
        return new VornSocketConnection(pair.ours.release(), "peer", nullptr, false);
    }
};

class SslAcceptedLink : public StreamLink {
    VornSmartPointer<VornConnection> connect(UniqueFd& peer) override {
        SocketPair pair = tcpPair();
        peer = std::move(pair.peer);
        return new VornSSLSocketConnection(pair.ours.release(), "peer", nullptr, false);
    }
};

/** A connection which wraps another one. The two close one descriptor, with nothing opened in between. */
class SslWrappingLink : public StreamLink {
    class Wrapper : public VornSSLSocketConnection {
    public:
        explicit Wrapper(const VornSmartPointer<VornSocketConnection>& plain)
            : VornSSLSocketConnection(plain, nullptr) {}

        void disconnect() override {
            VornSSLSocketConnection::disconnect();
            m_client->disconnect();
        }
    };

    VornSmartPointer<VornConnection> connect(UniqueFd& peer) override {
        SocketPair pair = tcpPair();
        peer = std::move(pair.peer);
        return new Wrapper(new VornSocketConnection(pair.ours.release(), "peer", nullptr, false));
    }
};

/** A client which says that it is connected and never is. */
class SslClientLink : public PlainLink {
public:
    VornConnection& writer() override { return m_connection; }

    std::string written() override {
        pollfd entry = {m_listener.get(), POLLIN, 0};
        return ::poll(&entry, 1, 0) == 0 ? "" : "a connection has been opened";
    }

    VornConnection& reader(const std::string& /*incoming*/) override { return m_connection; }

private:
    int m_port = 0;
    UniqueFd m_listener = tcpListen("127.0.0.1", m_port);
    VornSSLSocketConnection m_connection{"127.0.0.1", m_port, false};
};

/** Memory alone. */
class BufferLink : public PlainLink {
public:
    VornConnection& writer() override { return m_writer; }

    std::string written() override {
        return {static_cast<const char*>(m_writer.buf()), static_cast<std::size_t>(m_writer.size())};
    }

    VornConnection& reader(const std::string& incoming) override {
        m_reader.emplace(const_cast<char*>(incoming.data()), static_cast<int>(incoming.size()), "peer");
        return *m_reader;
    }

private:
    VornBufferConnection m_writer;
    std::optional<VornBufferConnection> m_reader;
};

/** Datagrams from and to plain sockets; what arrives is read as the UDP server hands it out. */
class UdpLink : public PlainLink {
public:
    VornConnection& writer() override { return m_writer; }

    std::string written() override {
        EXPECT_TRUE(m_writer.transmit());
        return receiveDatagram(m_socket.get());
    }

    VornConnection& reader(const std::string& incoming) override {
        int senderPort = 0;
        const UniqueFd sender = udpSocket("127.0.0.1", senderPort);
        udpSendTo(sender.get(), "127.0.0.1", m_port, incoming);
        Datagram datagram = receiveDatagramFrom(m_socket.get());
        m_reader.emplace(datagram.data.data(), static_cast<int>(datagram.data.size()), datagram.address);
        return *m_reader;
    }

private:
    int m_port = 0;
    UniqueFd m_socket = udpSocket("127.0.0.1", m_port);
    VornUDPSocketConnection m_writer{"127.0.0.1", m_port, false};
    std::optional<VornBufferConnection> m_reader;
};

template <typename Class>
std::unique_ptr<PlainLink> make() {
    return std::make_unique<Class>();
}

struct Kind {
    const char* name;
    std::unique_ptr<PlainLink> (*makeLink)();
    /** Whether anything can be written and read; what cannot fails with 107 each time. */
    bool carriesData;
    /** The code of a read after the last byte. */
    int endCode;
};

const Kind kinds[] = {
    {"PipeClient", &make<PipeClientLink>, true, ENOTCONN},
    {"PipeAccepted", &make<PipeAcceptedLink>, true, ENOTCONN},
    {"TcpClient", &make<TcpClientLink>, true, ENOTCONN},
    {"TcpAccepted", &make<TcpAcceptedLink>, true, ENOTCONN},
    {"Udp", &make<UdpLink>, true, 0},
    {"Buffer", &make<BufferLink>, true, 0},
    {"SslClient", &make<SslClientLink>, false, ENOTCONN},
    {"SslAccepted", &make<SslAcceptedLink>, false, ENOTCONN},
    {"SslWrapping", &make<SslWrappingLink>, false, ENOTCONN},
};

void PrintTo(const Kind& kind, std::ostream* out) {
    *out << kind.name;
}

class ConnectionConformanceTest : public LeakCheckedTest, public testing::WithParamInterface<Kind> {
protected:
    bool carriesData() const { return GetParam().carriesData; }

    /** What an operation fails with that would otherwise succeed. */
    std::optional<Failure> unless(const char* text) const {
        return carriesData() ? none : failure(text, ENOTCONN);
    }

    template <typename Operation>
    void expectWritten(const std::string& hexText, Operation write) {
        link = GetParam().makeLink();
        VornConnection& connection = link->writer();
        EXPECT_EQ(failureOf([&] { write(connection); }), unless(writeFailed)) << hexText.substr(0, 40);
        EXPECT_EQ(hex(link->written()), carriesData() ? hexText : "");
    }

    /** Reads a value off these bytes, of which none may be left. */
    template <typename Value, typename Operation>
    void expectRead(const std::string& incoming, const Value& expected, Operation read) {
        link = GetParam().makeLink();
        VornConnection& connection = link->reader(incoming);
        std::optional<Value> value;
        EXPECT_EQ(failureOf([&] { value = read(connection); }), unless(readFailed));
        EXPECT_EQ(value, carriesData() ? std::optional<Value>(expected) : std::nullopt);
        char byte = 0;
        EXPECT_EQ(failureOf([&] { connection.get(&byte, 1); }), failure(readFailed, GetParam().endCode));
    }

    template <typename Operation>
    void expectReadFailure(const std::string& incoming, int code, Operation read) {
        VornConnection& connection = link->reader(incoming);
        EXPECT_EQ(failureOf([&] { read(connection); }), failure(readFailed, carriesData() ? code : ENOTCONN));
    }

    /** getLine(); null without an error is "null", null with one is its number. */
    static std::string getLine(VornConnection& connection) {
        char line[64] = {};
        int error = untouched;
        const char* result = connection.getLine(line, sizeof(line), error);
        if (result != nullptr)
            return "line " + std::string(result);
        return error == 0 ? "null" : "error " + std::to_string(error);
    }

    std::string lineUnlessNotConnected(const std::string& expected) const {
        return carriesData() ? expected : "error 107";
    }

    std::unique_ptr<PlainLink> link = GetParam().makeLink();
};

} // namespace

// Writing.

TEST_P(ConnectionConformanceTest, EachValueIsWrittenAsItsBytes) {
    using C = VornConnection;
    expectWritten("12 34 56 78 00 00 00 00", [](C& to) { to.transfer(305419896L); }); // the low half first
    expectWritten("ff ff ff ff 00 00 00 00", [](C& to) { to.transfer(-1L); });
    expectWritten("00 00 00 05 00 00 00 00", [](C& to) { to.transfer(0x100000005L); });
    expectWritten("00 00 00 01", [](C& to) { to.transfer(1); });
    expectWritten("80 00 00 00", [](C& to) { to.transfer(INT_MIN); });
    expectWritten("ff fe", [](C& to) { to.transfer(static_cast<short>(-2)); });
    expectWritten("00 01", [](C& to) { to.transfer(true); });
    expectWritten("00 00", [](C& to) { to.transfer(false); });
    expectWritten("00 00 00 03 61 62 63", [](C& to) { to.transfer(VornString("abc")); });
    expectWritten("00 00 00 00", [](C& to) { to.transfer(VornString()); });
    expectWritten("00 00 00 03 61 00 62", [](C& to) { to.transfer(VornString("a\0b", 3)); });
    expectWritten("00 00 00 03 61 62 63", [](C& to) { to.transfer("abc"); });
    expectWritten("00 01 00 00", [](C& to) { to.transferACK(); });
    expectWritten("00 01 ff ff", [](C& to) { to.transferError(); });
    expectWritten("00 ff 7f", [](C& to) { to.put(bytes("00 ff 7f").data(), 3); });
}

TEST_P(ConnectionConformanceTest, LargeStringIsWrittenWhole) {
    const std::string text(60'000, 't');
    expectWritten("00 00 ea 60 " + hex(text), [&](VornConnection& to) { to.transfer(text); });
}

TEST_P(ConnectionConformanceTest, ValuesFollowEachOtherWithoutPadding) {
    expectWritten("00 07 00 00 00 08 00 00 00 01 78 00 00 00 09 00 00 00 00", [](VornConnection& to) {
        to.transfer(static_cast<short>(7));
        to.transfer(8);
        to.transfer("x");
        to.transfer(9L);
    });
}

TEST_P(ConnectionConformanceTest, RawModeChangesNoByte) {
    expectWritten("00 00 00 01 61 00 01 00 00", [](VornConnection& to) {
        to.setRaw(true);
        to.transfer("a");
        to.setRaw(false);
        to.transferACK();
    });
}

TEST_P(ConnectionConformanceTest, ARawWriteReturnsItsCount) {
    VornConnection& connection = link->writer();
    EXPECT_EQ(failureOf([&] { connection.establish(); }), none);
    EXPECT_EQ(rawWrite(connection, "abc"), carriesData() ? raw(3, 0) : raw(-1, ENOTCONN));
    EXPECT_EQ(rawWrite(connection, ""), carriesData() ? raw(0, 0) : raw(-1, ENOTCONN));
    EXPECT_EQ(link->written(), carriesData() ? "abc" : "");
}

// Reading.

TEST_P(ConnectionConformanceTest, EachValueIsReadFromItsBytes) {
    using C = VornConnection;
    const auto readString = [](C& from) { return from.receiveString(); };
    // Unsigned, and its last bytes are ignored.
    expectRead(bytes("ff ff ff fb 11 22 33 44"), 4294967291L, [](C& from) { return from.receiveLong(); });
    expectRead(bytes("80 00 00 01"), -2147483647, [](C& from) { return from.receiveInt(); });
    expectRead(bytes("ff fe"), static_cast<short>(-2), [](C& from) { return from.receiveShort(); });
    expectRead(bytes("00 00 00 03 61 62 63"), VornString("abc"), readString);
    expectRead(bytes("00 00 00 00"), VornString(), readString);
    expectRead(bytes("00 00 00 03 61 00 62"), VornString("a"), readString); // it is consumed whole
}

TEST_P(ConnectionConformanceTest, LargeStringIsReadWhole) {
    const std::string text(60'000, 't');
    expectRead(bytes("00 00 ea 60") + text, VornString(text),
               [](VornConnection& from) { return from.receiveString(); });
}

TEST_P(ConnectionConformanceTest, GetReadsExactlyWhatItIsAskedFor) {
    expectRead("abcdef", std::string("abcd|ef"), [](VornConnection& from) {
        char data[8] = {};
        EXPECT_EQ(from.get(data, 4), 4);
        data[4] = '|';
        EXPECT_EQ(from.get(data + 5, 2), 2);
        return std::string(data);
    });
}

TEST_P(ConnectionConformanceTest, ValuesAreReadInTheirOrder) {
    expectRead(bytes("00 07 00 00 00 08 00 00 00 01 78 00 00 00 09 00 00 00 00"), std::string("7 8 x 9"),
               [](VornConnection& from) {
                   std::string result = std::to_string(from.receiveShort());
                   result += " " + std::to_string(from.receiveInt());
                   result += " " + from.receiveString();
                   return result + " " + std::to_string(from.receiveLong());
               });
}

TEST_P(ConnectionConformanceTest, WhenTheDataEndsInAValue_TheReadFails) {
    expectReadFailure(bytes("00 00 00"), GetParam().endCode, [](VornConnection& from) { from.receiveInt(); });
}

TEST_P(ConnectionConformanceTest, WhenTheDataEndsInAString_TheReadFails) {
    expectReadFailure(bytes("00 00 00 05 61 62 63"), GetParam().endCode,
                      [](VornConnection& from) { from.receiveString(); });
}

TEST_P(ConnectionConformanceTest, WhenALengthIsNegative_TheReadFailsWithCodeZero) {
    const std::string lengths = bytes("ff ff ff ff ff ff ff fe 80 00 00 00");
    VornConnection& connection = link->reader(lengths);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(failureOf([&] { connection.receiveString(); }),
                  failure(readFailed, carriesData() ? 0 : ENOTCONN));
    }
}

TEST_P(ConnectionConformanceTest, WhenALengthIsHugeAndLittleFollows_TheReadFailsAndCostsNoMemory) {
    const PeakMemory memory;
    expectReadFailure(bytes("7f ff ff ff") + "abc", GetParam().endCode,
                      [](VornConnection& from) { from.receiveString(); });
    EXPECT_LT(memory.grownKiB(), noticeableKiB);
}

TEST_P(ConnectionConformanceTest, ARawReadThatDoesNotWaitTakesWhatThereIs) {
    VornConnection& connection = link->reader("abc");
    std::string data(8, '#');
    EXPECT_EQ(rawRead(connection, data, 8, false), carriesData() ? raw(3, 0) : raw(-1, ENOTCONN));
    EXPECT_EQ(data, carriesData() ? "abc#####" : "########");
}

TEST_P(ConnectionConformanceTest, ARawReadOfNothingTakesNothing) {
    VornConnection& connection = link->reader("abc");
    std::string data(3, '#');
    EXPECT_EQ(rawRead(connection, data, 0, true), carriesData() ? raw(0, 0) : raw(-1, ENOTCONN));
    EXPECT_EQ(rawRead(connection, data, -1, true), carriesData() ? raw(0, 0) : raw(-1, ENOTCONN));
    EXPECT_EQ(data, "###");
    EXPECT_EQ(rawRead(connection, data, 3, true), carriesData() ? raw(3, 0) : raw(-1, ENOTCONN));
}

// Looking and lines.

TEST_P(ConnectionConformanceTest, APeekLeavesTheBytes) {
    VornConnection& connection = link->reader("abc");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(peek(connection, 2), carriesData() ? peeked(true, 2, 0, "ab") : peeked(false, 0, ENOTCONN));
    std::string data(3, '#');
    EXPECT_EQ(rawRead(connection, data, 3, true), carriesData() ? raw(3, 0) : raw(-1, ENOTCONN));
}

TEST_P(ConnectionConformanceTest, PeekLineFindsALineAndLeavesIt) {
    VornConnection& connection = link->reader("GET x\r\nmore");
    for (int i = 0; i < 2; ++i) {
        char line[64] = "old line\r\n";
        int size = sizeof(line);
        int error = untouched;
        EXPECT_EQ(connection.peekLine(line, size, error), carriesData());
        EXPECT_EQ(error, carriesData() ? 0 : ENOTCONN);
        EXPECT_STREQ(line, carriesData() ? "GET x" : "");
    }
}

TEST_P(ConnectionConformanceTest, GetLineConsumesOneLine) {
    VornConnection& connection = link->reader("abc\r\ndef");
    EXPECT_EQ(getLine(connection), lineUnlessNotConnected("line abc"));
    std::string data(3, '#');
    EXPECT_EQ(rawRead(connection, data, 3, true), carriesData() ? raw(3, 0) : raw(-1, ENOTCONN));
    EXPECT_EQ(data, carriesData() ? "def" : "###");
}

TEST_P(ConnectionConformanceTest, LinesAreReadOneByOne) {
    VornConnection& connection = link->reader("one\r\n\r\nthree\r\n");
    EXPECT_EQ(getLine(connection), lineUnlessNotConnected("line one"));
    EXPECT_EQ(getLine(connection), lineUnlessNotConnected("line "));
    EXPECT_EQ(getLine(connection), lineUnlessNotConnected("line three"));
}

TEST_P(ConnectionConformanceTest, WithoutALineEndOrWithAByteThatIsNotPrintable_ThereIsNoLine) {
    for (const char* incoming : {"def", "a\tb\r\n", "a\xc3\xa4\r\n"}) {
        link = GetParam().makeLink();
        EXPECT_EQ(getLine(link->reader(incoming)), lineUnlessNotConnected("null")) << incoming;
    }
}

// State.

TEST_P(ConnectionConformanceTest, EstablishingAgainIsHarmless) {
    VornConnection& connection = link->writer();
    EXPECT_EQ(failureOf([&] { connection.establish(); }), none);
    EXPECT_EQ(failureOf([&] { connection.establish(); }), none);
}

TEST_P(ConnectionConformanceTest, DisconnectingAgainIsHarmless) {
    VornConnection& connection = link->reader("abc");
    connection.disconnect();
    connection.disconnect();
}

TEST_P(ConnectionConformanceTest, LocalAccessIsOnlyKept) {
    VornConnection& connection = link->reader("abc");
    EXPECT_FALSE(connection.getLocalAccess());
    connection.setLocalAccess(true);
    EXPECT_TRUE(connection.getLocalAccess());
    std::string data(3, '#');
    EXPECT_EQ(rawRead(connection, data, 3, true), carriesData() ? raw(3, 0) : raw(-1, ENOTCONN));
}

INSTANTIATE_TEST_SUITE_P(Connection, ConnectionConformanceTest, testing::ValuesIn(kinds),
                         [](const auto& kind) { return std::string(kind.param.name); });
