// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ConnectionTestTools.h"
#include "Interpose.h"
#include "Interruptions.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornNet;
using namespace VornTest;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using Record = LogCapture::Record;

/** One answer of a scripted peekBytes(); without a size the number of bytes is told. */
struct PeekStep {
    std::string data;
    int error = 0;
    std::optional<int> size = std::nullopt;
    bool result = true;
};

/**
 * A transport which writes down every virtual call that reaches it and answers as the test has told it.
 *
 * Calls are written down at their beginning, so what a call leads to stands after it.
 */
class ScriptedConnection : public VornConnection {
public:
    using VornConnection::transfer;
    using VornConnection::VornConnection;

    using VornConnection::m_bClientConnection;
    using VornConnection::m_bConnected;
    using VornConnection::m_bLocalAccess;
    using VornConnection::m_bRaw;
    using VornConnection::m_sPortName;
    using VornConnection::m_sRemoteName;
    using VornConnection::m_sServerName;
    using VornConnection::m_sServiceName;

    void disconnect() override { note("disconnect"); }

    void transfer(int nValue) override {
        note("transfer(int " + std::to_string(nValue) + ")");
        VornConnection::transfer(nValue);
    }

    void transfer(short nValue) override {
        note("transfer(short " + std::to_string(nValue) + ")");
        VornConnection::transfer(nValue);
    }

    int receiveInt() override {
        note("receiveInt");
        return VornConnection::receiveInt();
    }

    int get(void* pBuffer, int nSize) override {
        note("get " + std::to_string(nSize));
        return VornConnection::get(pBuffer, nSize);
    }

    void put(void* pBuffer, int nSize) override {
        note("put " + std::to_string(nSize));
        VornConnection::put(pBuffer, nSize);
    }

    bool peekLine(char* pBuffer, int& nSize, int& nErrorCode) override {
        note("peekLine " + std::to_string(nSize) + " error " + std::to_string(nErrorCode));
        return VornConnection::peekLine(pBuffer, nSize, nErrorCode);
    }

    long transfer(const char* buf, long bufLen, long* error) override {
        const std::string data(buf, static_cast<std::size_t>(bufLen));
        note("send " + hex(data));
        errorsOnEntry.push_back(*error);
        onSend();
        written += data;
        *error = writeError;
        return writeCount.value_or(bufLen);
    }

    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override {
        note("receive " + std::to_string(toRead) + (bWaitForAll ? " all" : " some"));
        errorsOnEntry.push_back(*error);
        onReceive();
        const std::size_t count = std::min(incoming.size(), static_cast<std::size_t>(toRead));
        std::memcpy(bufPtr, incoming.data(), count);
        incoming.erase(0, count);
        *error = readError;
        return readCount.value_or(static_cast<long>(count));
    }

    bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override {
        note("peekBytes " + std::to_string(nSize));
        if (peekSteps.empty()) {
            const PeekStep waiting{incoming, 0, std::nullopt, !incoming.empty()};
            return answer(waiting, pBuffer, nSize, nErrorCode);
        }
        const PeekStep step = peekSteps.front();
        peekSteps.pop_front();
        return answer(step, pBuffer, nSize, nErrorCode);
    }

    void initialize() override {
        note("initialize");
        VornConnection::initialize();
    }

    void cleanup() override {
        note("cleanup");
        VornConnection::cleanup();
    }

    bool connectToServiceImpl() override {
        note("connectToServiceImpl");
        return VornConnection::connectToServiceImpl();
    }

    int establishImpl(VornString& sExceptionMessage) override {
        note("establish");
        onEstablish();
        messageOnEntry = sExceptionMessage;
        sExceptionMessage = establishText;
        return establishCode;
    }

    std::vector<std::string> calls;
    std::vector<long> errorsOnEntry;
    std::string messageOnEntry = "untouched";
    std::string written;
    std::string incoming;
    std::deque<PeekStep> peekSteps;
    std::string establishText;
    int establishCode = 0;
    long writeError = 0;
    long readError = 0;
    std::optional<long> writeCount;
    std::optional<long> readCount;
    std::function<void()> onEstablish = [] {};
    std::function<void()> onSend = [] {};
    std::function<void()> onReceive = [] {};

private:
    void note(const std::string& call) { calls.push_back(call); }

    static bool answer(const PeekStep& step, void* pBuffer, int& nSize, int& nErrorCode) {
        const std::size_t room = static_cast<std::size_t>(nSize);
        const std::size_t count = std::min(step.data.size(), room);
        std::memcpy(pBuffer, step.data.data(), count);
        nSize = step.size.value_or(static_cast<int>(count));
        nErrorCode = step.error;
        return step.result;
    }
};

class VornConnectionTest : public LeakCheckedTest {
protected:
    /** The virtual calls that an operation makes. */
    std::vector<std::string> callsOf(const std::function<void(ScriptedConnection&)>& operation) {
        connection.calls.clear();
        operation(connection);
        return connection.calls;
    }

    ScriptedConnection connection;
};

/** peekLine() and getLine() with the pauses taken out; how many there were is still known. */
class VornConnection_Line : public VornConnectionTest {
protected:
    VornConnection_Line() { m_noPause.returning(0); }

    int pauses() const { return m_trace.calls("clock_nanosleep"); }

    /** peekLine() on a buffer of this capacity, full of old bytes. */
    PeekResult peekLine(int capacity) {
        m_line.fill('#');
        PeekResult result{false, capacity, untouched, {}};
        result.result = connection.peekLine(m_line.data(), result.size, result.error);
        result.data = m_line.data();
        return result;
    }

    /** getLine() on such a buffer; nullopt for null. */
    std::optional<std::string> getLine(int capacity) {
        m_line.fill('#');
        error = untouched;
        const char* line = connection.getLine(m_line.data(), capacity, error);
        if (line == nullptr)
            return std::nullopt;
        EXPECT_EQ(static_cast<const void*>(line), static_cast<const void*>(m_line.data()));
        return line;
    }

    int error = 0;
    std::array<char, 128> m_line = {};

private:
    FaultRule m_noPause{"clock_nanosleep", 0, 1, FaultRule::always};
    const CallTrace m_trace{CallTrace::Scope::CallingThread};
};

using VornConnection_Death = VornConnectionTest;

const auto none = std::optional<Failure>();

using TypedOperation = std::function<void(VornConnection&)>;

const TypedOperation typedWrites[] = {
    [](VornConnection& c) { c.transfer(1L); },
    [](VornConnection& c) { c.transfer(1); },
    [](VornConnection& c) { c.transfer(static_cast<short>(1)); },
    [](VornConnection& c) { c.transfer(true); },
    [](VornConnection& c) { c.transfer(VornString("abc")); },
    [](VornConnection& c) { c.transfer("abc"); },
    [](VornConnection& c) { c.transferACK(); },
    [](VornConnection& c) { c.transferError(); },
};

const TypedOperation typedReads[] = {
    [](VornConnection& c) { c.receiveLong(); },
    [](VornConnection& c) { c.receiveInt(); },
    [](VornConnection& c) { c.receiveShort(); },
    [](VornConnection& c) { c.receiveString(); },
};

/**
 * A text of any length of which no byte has been written, for two gigabytes of them take minutes on a busy
 * machine. The length is the second word of a string of the C++ library in use.
 */
VornString untouchedText(std::size_t length) {
    VornString text;
    text.reserve(length);
    reinterpret_cast<std::size_t*>(&text)[1] = length;
    return text;
}

std::string noLineText(int count) {
    return "VornConnection::peekLine: read " + std::to_string(count) + " without a <CRLF> pair";
}

std::string breakText(char character) {
    return std::string("HTTPRequest::PeekLine: break on character = ") + character;
}

} // namespace

// Construction, fields and accessors.

TEST_F(VornConnectionTest, WhenMadeWithoutArguments_HasTheDefaults) {
    EXPECT_FALSE(connection.m_bConnected);
    EXPECT_FALSE(connection.m_bClientConnection);
    EXPECT_EQ(connection.m_sRemoteName, "");
    EXPECT_FALSE(connection.m_bRaw);
    EXPECT_EQ(connection.m_sServiceName, "");
    EXPECT_EQ(connection.m_sServerName, "");
    EXPECT_EQ(connection.m_sPortName, "");
    EXPECT_FALSE(connection.m_bLocalAccess);
    EXPECT_THAT(connection.calls, IsEmpty());
}

TEST_F(VornConnectionTest, WhenMadeWithRemoteName_IsNotRaw) {
    const ScriptedConnection named(true, "host1");
    EXPECT_TRUE(named.m_bClientConnection);
    EXPECT_EQ(named.m_sRemoteName, "host1");
    EXPECT_FALSE(named.m_bRaw);
    EXPECT_FALSE(named.m_bConnected);
    EXPECT_FALSE(named.m_bLocalAccess);
    EXPECT_EQ(named.m_sServiceName, "");
}

TEST_F(VornConnectionTest, WhenMadeRaw_KeepsTheFlagAndDoesNotConnect) {
    const ScriptedConnection rawOne(false, true, "host2");
    EXPECT_FALSE(rawOne.m_bClientConnection);
    EXPECT_EQ(rawOne.m_sRemoteName, "host2");
    EXPECT_TRUE(rawOne.m_bRaw);
    EXPECT_FALSE(rawOne.m_bConnected);
    EXPECT_THAT(rawOne.calls, IsEmpty());
}

TEST_F(VornConnectionTest, AccessorsReadAndWriteTheirFields) {
    connection.m_sRemoteName = "remote";
    connection.m_sServerName = "server";
    connection.m_sPortName = "4711";
    EXPECT_EQ(connection.getRemoteName(), "remote");
    EXPECT_EQ(&connection.getRemoteName(), &connection.m_sRemoteName);
    EXPECT_EQ(connection.getServerName(), "server");
    EXPECT_EQ(connection.getPortName(), "4711");
    connection.setServiceName("svc");
    EXPECT_EQ(connection.m_sServiceName, "svc");
    EXPECT_EQ(connection.getServiceName(), "svc");
    connection.setLocalAccess(true);
    EXPECT_TRUE(connection.m_bLocalAccess);
    EXPECT_TRUE(connection.getLocalAccess());
    connection.setLocalAccess(false);
    EXPECT_FALSE(connection.getLocalAccess());
    EXPECT_THAT(connection.calls, IsEmpty());
}

TEST_F(VornConnectionTest, AccessRightsAreOne) {
    EXPECT_EQ(connection.getAccessRights(), 1U);
}

TEST_F(VornConnectionTest, WhenRawModeIsLeftOrWasNot_InitializesAgain) {
    connection.setRaw(true);
    EXPECT_TRUE(connection.m_bRaw);
    EXPECT_THAT(connection.calls, IsEmpty());
    connection.setRaw(false);
    EXPECT_FALSE(connection.m_bRaw);
    connection.setRaw(false);
    EXPECT_FALSE(connection.m_bConnected);
    EXPECT_THAT(connection.calls, ElementsAre("initialize", "initialize"));
}

TEST_F(VornConnectionTest, CleanupOnlyMarksItUnconnected) {
    connection.m_bConnected = true;
    connection.m_bRaw = true;
    connection.m_bLocalAccess = true;
    connection.m_sServiceName = "svc";
    connection.cleanup();
    EXPECT_FALSE(connection.m_bConnected);
    EXPECT_TRUE(connection.m_bRaw);
    EXPECT_TRUE(connection.m_bLocalAccess);
    EXPECT_EQ(connection.m_sServiceName, "svc");
    EXPECT_THAT(connection.calls, ElementsAre("cleanup"));
}

// Establishing.

TEST_F(VornConnectionTest, WhenEstablished_AsksTheTransportWithAnEmptyMessage) {
    EXPECT_EQ(failureOf([&] { connection.establish(); }), none);
    EXPECT_THAT(connection.calls, ElementsAre("establish"));
    EXPECT_EQ(connection.messageOnEntry, "");
}

TEST_F(VornConnectionTest, WhenEstablishingGivesACodeOrAText_ThrowsBoth) {
    for (const Failure& given : {failure("no way.", 111), failure("", 13), failure(serviceFailed, 0)}) {
        connection.establishText = given.text;
        connection.establishCode = given.code;
        EXPECT_EQ(failureOf([&] { connection.establish(); }), given);
    }
}

TEST_F(VornConnectionTest, WhenEstablishingFails_NoTypedOperationReadsOrWritesAByte) {
    connection.establishText = "refused.";
    connection.establishCode = 111;
    connection.incoming = bytes("00 00 00 00 00 00 00 00");
    std::vector<TypedOperation> operations(std::begin(typedWrites), std::end(typedWrites));
    operations.insert(operations.end(), std::begin(typedReads), std::end(typedReads));
    for (std::size_t i = 0; i < operations.size(); ++i)
        EXPECT_EQ(failureOf([&] { operations[i](connection); }), failure("refused.", 111)) << i;
    EXPECT_EQ(connection.written, "");
    EXPECT_EQ(connection.incoming.size(), 8U);
    EXPECT_EQ(std::count(connection.calls.begin(), connection.calls.end(), "establish"),
              static_cast<long>(operations.size()));
}

TEST_F(VornConnectionTest, WhenTheTransportThrows_TypedOperationsPassItUnchanged) {
    connection.onEstablish = [] { throw VornException("own text", 42); };
    EXPECT_EQ(failureOf([&] { connection.transfer(1); }), failure("own text", 42));
    EXPECT_EQ(failureOf([&] { connection.receiveString(); }), failure("own text", 42));
    connection.onEstablish = [] {};
    connection.onSend = [] { throw VornException("send text", 43); };
    EXPECT_EQ(failureOf([&] { connection.transfer(1); }), failure("send text", 43));
    connection.onReceive = [] { throw VornException("receive text", 44); };
    EXPECT_EQ(failureOf([&] { connection.receiveInt(); }), failure("receive text", 44));
}

// The typed encoding and the virtual calls it makes.

TEST_F(VornConnectionTest, EachValueIsWrittenByTheVirtualCallsOfItsParts) {
    using C = ScriptedConnection;
    EXPECT_THAT(callsOf([](C& c) { c.transfer(305419896L); }),
                ElementsAre("establish", "put 8", "send 12 34 56 78 00 00 00 00"));
    EXPECT_THAT(callsOf([](C& c) { c.transfer(-2); }),
                ElementsAre("transfer(int -2)", "establish", "put 4", "send ff ff ff fe"));
    EXPECT_THAT(callsOf([](C& c) { c.transfer(static_cast<short>(-2)); }),
                ElementsAre("transfer(short -2)", "establish", "put 2", "send ff fe"));
    EXPECT_THAT(callsOf([](C& c) { c.transfer(true); }),
                ElementsAre("transfer(short 1)", "establish", "put 2", "send 00 01"));
    EXPECT_THAT(callsOf([](C& c) { c.transfer(VornString("abc")); }),
                ElementsAre("establish", "transfer(int 3)", "establish", "put 4", "send 00 00 00 03", "put 3",
                            "send 61 62 63"));
    for (const char* nothing : {"", static_cast<const char*>(nullptr)})
        EXPECT_THAT(callsOf([&](C& c) { c.transfer(nothing); }),
                    ElementsAre("establish", "transfer(int 0)", "establish", "put 4", "send 00 00 00 00"));
    EXPECT_THAT(callsOf([](C& c) { c.transferACK(); }),
                ElementsAre("establish", "transfer(short 1)", "establish", "put 2", "send 00 01",
                            "transfer(short 0)", "establish", "put 2", "send 00 00"));
    EXPECT_THAT(callsOf([](C& c) { c.transferError(); }),
                ElementsAre("establish", "transfer(short 1)", "establish", "put 2", "send 00 01",
                            "transfer(short -1)", "establish", "put 2", "send ff ff"));
}

TEST_F(VornConnectionTest, EachValueIsReadByTheVirtualCallsOfItsParts) {
    using C = ScriptedConnection;
    connection.incoming = std::string(22, '\0') + bytes("00 00 00 03 61 62 63 64");
    EXPECT_THAT(callsOf([](C& c) { c.receiveLong(); }), ElementsAre("establish", "get 8", "receive 8 all"));
    EXPECT_THAT(callsOf([](C& c) { c.receiveInt(); }),
                ElementsAre("receiveInt", "establish", "get 4", "receive 4 all"));
    EXPECT_THAT(callsOf([](C& c) { c.receiveShort(); }), ElementsAre("establish", "get 2", "receive 2 all"));
    for (int i = 0; i < 2; ++i) // there is nothing to be read of an empty one
        EXPECT_THAT(callsOf([](C& c) { c.receiveString(); }),
                    ElementsAre("establish", "receiveInt", "establish", "get 4", "receive 4 all"));
    EXPECT_THAT(callsOf([](C& c) { c.receiveString(); }),
                ElementsAre("establish", "receiveInt", "establish", "get 4", "receive 4 all", "get 3",
                            "receive 3 all"));
    EXPECT_EQ(connection.incoming, "d");
}

TEST_F(VornConnectionTest, LongCarriesOnlyItsLow32Bits) {
    for (const auto& [value, expected] : std::vector<std::pair<long, std::string>>{
             {-1L, "ff ff ff ff 00 00 00 00"},
             {-5L, "ff ff ff fb 00 00 00 00"},
             {0x100000000L, "00 00 00 00 00 00 00 00"},
             {0x7FFFFFFF12345678L, "12 34 56 78 00 00 00 00"},
             {std::numeric_limits<long>::min(), "00 00 00 00 00 00 00 00"},
             {4294967295L, "ff ff ff ff 00 00 00 00"},
         }) {
        ScriptedConnection one;
        one.transfer(value);
        EXPECT_EQ(hex(one.written), expected) << value;
    }
}

TEST_F(VornConnectionTest, StringIsReadInOneGetAndCutAtItsFirstZeroByte) {
    const std::string zero(1, '\0');

    const struct {
        const char* length;
        std::string text;
        std::string result;
        const char* call;
    } rows[] = {
        {"00 00 00 02", zero + "b", "", "get 2"},
        {"00 04 93 e0", std::string(300'000, 'x'), std::string(300'000, 'x'), "get 300000"},
        {"00 01 86 a0", std::string(70'000, 'x') + zero + std::string(29'999, 'y'), std::string(70'000, 'x'),
         "get 100000"},
    };

    for (const auto& row : rows) {
        connection.incoming = bytes(row.length) + row.text + "rest";
        EXPECT_EQ(connection.receiveString(), row.result);
        EXPECT_EQ(connection.incoming, "rest");
        EXPECT_THAT(connection.calls, Contains(row.call));
    }
}

TEST_F(VornConnectionTest, WhenAStringIsTooLongForItsLength_NothingIsWritten) {
    class Lazy : public ScriptedConnection {
    public:
        using ScriptedConnection::transfer;

        long transfer(const char* /*buf*/, long bufLen, long* /*error*/) override {
            sent += bufLen;
            return bufLen;
        }

        long sent = 0;
    };

    Lazy lazy;
    const std::size_t length = static_cast<std::size_t>(INT_MAX) + 1;
    const VornString text = untouchedText(length);
    ASSERT_EQ(text.size(), length);
    EXPECT_EQ(failureOf([&] { lazy.transfer(text); }), failure(writeFailed, EMSGSIZE));
    EXPECT_EQ(lazy.sent, 0);
}

// get() and put().

TEST_F(VornConnectionTest, GetAsksForAllAndReturnsTheSize) {
    connection.incoming = "abcdef";
    char buffer[4] = {};
    EXPECT_EQ(connection.get(buffer, 4), 4);
    EXPECT_EQ(std::string(buffer, 4), "abcd");
    EXPECT_THAT(connection.calls, ElementsAre("get 4", "receive 4 all"));
    EXPECT_THAT(connection.errorsOnEntry, ElementsAre(0));
}

TEST_F(VornConnectionTest, WhenCountIsNotTheSize_GetThrowsTheTransportsError) {
    char buffer[4] = {};
    for (const long count : {-1, 2, 5}) {
        for (const int error : {ECONNRESET, 0}) {
            connection.readCount = count;
            connection.readError = error;
            EXPECT_EQ(failureOf([&] { connection.get(buffer, 4); }), failure(readFailed, error)) << count;
        }
    }
}

TEST_F(VornConnectionTest, WhenCountIsRight_GetDoesNotLookAtTheError) {
    connection.incoming = "abcd";
    connection.readError = EMSGSIZE;
    char buffer[4] = {};
    EXPECT_EQ(failureOf([&] { EXPECT_EQ(connection.get(buffer, 4), 4); }), none);
}

TEST_F(VornConnectionTest, WhenReadIsShort_EveryTypedReadFails) {
    connection.incoming = "a";
    connection.readError = ENOTCONN;
    for (const TypedOperation& read : typedReads)
        EXPECT_EQ(failureOf([&] { read(connection); }), failure(readFailed, ENOTCONN)) << &read - typedReads;
}

TEST_F(VornConnectionTest, PutHandsTheBytesToTheTransport) {
    char data[] = "abcd";
    connection.put(data, 3);
    EXPECT_THAT(connection.calls, ElementsAre("put 3", "send 61 62 63"));
    EXPECT_THAT(connection.errorsOnEntry, ElementsAre(0));
    EXPECT_TRUE(std::is_void_v<decltype(connection.put(data, 3))>);
}

TEST_F(VornConnectionTest, WhenTheTransportReportsAnError_PutThrowsItWhateverTheCount) {
    connection.writeError = EPIPE;
    char data[] = "abcd";
    EXPECT_EQ(failureOf([&] { connection.put(data, 4); }), failure(writeFailed, EPIPE));
    connection.writeCount = -1;
    EXPECT_EQ(failureOf([&] { connection.put(data, 4); }), failure(writeFailed, EPIPE));
}

TEST_F(VornConnectionTest, WhenCountIsShortWithoutAnError_PutDoesNotThrow) {
    char data[] = "abcd";
    for (const long count : {2L, 0L, -1L}) {
        connection.writeCount = count;
        EXPECT_EQ(failureOf([&] { connection.put(data, 4); }), none) << count;
    }
}

TEST_F(VornConnectionTest, WhenWriteFails_EveryTypedWriteFails) {
    connection.writeError = EPIPE;
    for (const TypedOperation& write : typedWrites)
        EXPECT_EQ(failureOf([&] { write(connection); }), failure(writeFailed, EPIPE)) << &write - typedWrites;
}

TEST_F(VornConnectionTest, AfterAFailure_TheConnectedStateIsLeftAsItWas) {
    connection.m_bConnected = true;
    connection.writeError = EPIPE;
    EXPECT_EQ(failureOf([&] { connection.transfer(1); }), failure(writeFailed, EPIPE));
    EXPECT_EQ(failureOf([&] { connection.receiveInt(); }), failure(readFailed, 0));
    EXPECT_TRUE(connection.m_bConnected);
    EXPECT_THAT(connection.calls, Not(Contains("disconnect")));
}

// Exceptions that are not the library's own.

TEST_F(VornConnection_Death, WhenTheTransportThrowsSomethingElse_EveryBoundaryEndsTheProcess) {
    char buffer[4] = {};
    const auto foreign = [] { throw std::runtime_error("foreign"); };
    const auto died = testing::KilledBySignal(SIGABRT);
    connection.onSend = foreign;
    connection.onReceive = foreign;
    for (const TypedOperation& write : typedWrites)
        EXPECT_EXIT(write(connection), died, "");
    for (const TypedOperation& read : typedReads)
        EXPECT_EXIT(read(connection), died, "");
    EXPECT_EXIT(connection.get(buffer, 4), died, "");
    EXPECT_EXIT(connection.put(buffer, 4), died, "");
    connection.onReceive = [] { throw std::bad_alloc(); };
    EXPECT_EXIT(connection.receiveInt(), died, "");
}

TEST_F(VornConnection_Death, WhenEstablishingThrowsSomethingElse_TypedOperationsEndTheProcess) {
    connection.onEstablish = [] { throw 5; };
    const auto died = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(connection.transfer(1), died, "");
    EXPECT_EXIT(connection.transferACK(), died, "");
    EXPECT_EXIT(connection.receiveString(), died, "");
}

TEST_F(VornConnection_Death, WhenAnOverriddenGetRunsOutOfMemory_ReceiveStringEndsTheProcess) {
    class Failing : public ScriptedConnection {
    public:
        int receiveInt() override { return 3; }

        int get(void* /*pBuffer*/, int /*nSize*/) override { throw std::bad_alloc(); }
    };

    Failing failing;
    EXPECT_EXIT(failing.receiveString(), testing::KilledBySignal(SIGABRT), "");
}

// The service handshake.

TEST_F(VornConnectionTest, WithoutAServiceName_TheHandshakeSendsNothing) {
    EXPECT_TRUE(connection.connectToServiceImpl());
    EXPECT_THAT(connection.calls, ElementsAre("connectToServiceImpl"));
}

TEST_F(VornConnectionTest, WithAServiceName_TheHandshakeSendsItAndReadsOneByte) {
    connection.setServiceName("svc");
    connection.incoming = "+more";
    EXPECT_TRUE(connection.connectToServiceImpl());
    EXPECT_THAT(connection.calls,
                ElementsAre("connectToServiceImpl", "send 73 76 63 0d 0a", "receive 1 all"));
    EXPECT_EQ(connection.incoming, "more");
}

TEST_F(VornConnectionTest, WhenTheAnswerIsAnyOtherByte_TheHandshakeFails) {
    connection.setServiceName("svc");
    for (int answer = 0; answer < 256; ++answer) {
        connection.incoming = std::string(1, static_cast<char>(answer));
        EXPECT_EQ(connection.connectToServiceImpl(), answer == 0x2B) << answer;
    }
}

TEST_F(VornConnectionTest, CountsAloneDecideTheHandshake) {
    constexpr std::optional<long> all;

    const struct {
        const char* name;
        std::string incoming;
        std::optional<long> writeCount;
        long writeError;
        std::optional<long> readCount;
        long readError;
        bool result;
        std::string left;
    } rows[] = {
        {"no answer", "", all, 0, all, 0, false, ""},
        {"no answer, told as -1", "", all, 0, -1, 0, false, ""},
        {"nothing sent, told as -1", "+", -1, 0, all, 0, false, "+"},
        {"nothing sent, told as an error alone", "+", 0, EPIPE, all, 0, true, ""},
        {"an error beside the answer", "+", all, 0, all, EMSGSIZE, true, ""},
    };

    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedConnection asking;
        asking.setServiceName("svc");
        asking.incoming = row.incoming;
        asking.writeCount = row.writeCount;
        asking.writeError = row.writeError;
        asking.readCount = row.readCount;
        asking.readError = row.readError;
        EXPECT_EQ(asking.connectToServiceImpl(), row.result);
        EXPECT_EQ(asking.incoming, row.left);
    }
}

TEST_F(VornConnectionTest, ServiceNameIsSentUpToItsFirstZeroByte) {
    const std::string longName(100'000, 'n');
    for (const auto& [name, sent] :
         {std::pair(std::string("sv\0c", 4), std::string("sv")), std::pair(longName, longName)}) {
        ScriptedConnection asking;
        asking.setServiceName(name);
        asking.incoming = "+";
        EXPECT_TRUE(asking.connectToServiceImpl());
        EXPECT_EQ(asking.written, sent + "\r\n");
    }
}

TEST_F(VornConnectionTest, ConnectToServiceThrowsWhenTheHandshakeFails) {
    connection.setServiceName("svc");
    connection.incoming = "-";
    EXPECT_EQ(failureOf([&] { connection.connectToService(); }), failure(serviceFailed, 0));
    connection.incoming = "+";
    EXPECT_EQ(failureOf([&] { connection.connectToService(); }), none);
    EXPECT_THAT(connection.calls, Contains("connectToServiceImpl").Times(2));
}

// peekLine().

TEST_F(VornConnection_Line, WhenALineIsWaiting_PeekLineCutsItAndTellsHowMuchItSaw) {
    connection.incoming = "GET x\r\nmore text";
    const LogCapture log(9);
    EXPECT_EQ(peekLine(64), peeked(true, 16, 0, "GET x"));
    EXPECT_THAT(connection.calls, ElementsAre("peekLine 64 error -77", "peekBytes 63"));
    EXPECT_EQ(connection.incoming, "GET x\r\nmore text");
    EXPECT_EQ(pauses(), 0);
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornConnection_Line, PeekLineFindsPrintableLinesAndLogsWhyThereIsNone) {
    const struct {
        std::string incoming;
        PeekResult result;
        std::vector<std::string> records;
    } rows[] = {
        {"\r\nx", peeked(true, 3, 0, ""), {}},
        {"abc\r\n\t\x80", peeked(true, 7, 0, "abc"), {}},
        {"def", peeked(false, 3, 0, "def"), {noLineText(3)}},
        {"ab\rcd", peeked(false, 5, 0, "ab\rcd"), {noLineText(5)}},
        {"ab\ncd", peeked(false, 5, 0, "ab\ncd"), {noLineText(5)}},
        {"ab\n\r", peeked(false, 4, 0, "ab\n\r"), {noLineText(4)}},
        {std::string("ab\0c\r\n", 6), peeked(false, 6, 0, "ab"), {noLineText(6)}},
        {"a\tb\r\n", peeked(false, 5, 0, "a\tb"), {breakText('\t')}},
        {"ab\x01\x02\r\n", peeked(false, 6, 0, "ab\x01\x02"), {breakText('\x01')}},
        {"a\rb\r\n", peeked(false, 5, 0, "a\rb"), {breakText('\r')}},
        {"a\nb\r\n", peeked(false, 5, 0, "a\nb"), {breakText('\n')}},
        {"a\r\r\n", peeked(false, 4, 0, "a\r"), {breakText('\r')}},
    };

    for (const auto& row : rows) {
        SCOPED_TRACE(hex(row.incoming));
        const LogCapture log(4);
        connection.incoming = row.incoming;
        EXPECT_EQ(peekLine(64), row.result);
        EXPECT_EQ(log.texts(), row.records);
        EXPECT_THAT(log.records(), testing::Each(testing::Field(&Record::level, 4)));
    }
    EXPECT_EQ(pauses(), 0);
}

TEST_F(VornConnection_Line, PrintableAreTheCharactersOfAsciiFromBlankToTilde) {
    for (int value = 1; value < 256; ++value) {
        connection.incoming = std::string(1, static_cast<char>(value)) + "\r\n";
        EXPECT_EQ(peekLine(64).result, value >= 0x20 && value <= 0x7E) << value;
    }
}

TEST_F(VornConnection_Line, WhenNothingIsWaiting_PeekLineLooksThreeTimesAndPausesTwice) {
    const LogCapture log(4);
    EXPECT_EQ(peekLine(64), peeked(false, 0, 0, ""));
    EXPECT_THAT(connection.calls,
                ElementsAre("peekLine 64 error -77", "peekBytes 63", "peekBytes 63", "peekBytes 63"));
    EXPECT_EQ(pauses(), 2);
    EXPECT_THAT(log.records(), ElementsAre(Record{4, noLineText(0)}));
}

TEST_F(VornConnection_Line, PeekLineLooksUntilThereAreBytesOrAnError) {
    const PeekStep nothing{"", 0, 0, false};

    const struct {
        const char* name;
        std::deque<PeekStep> looks;
        int capacity;
        PeekResult result;
        int pauses;
    } rows[] = {
        {"a line later", {nothing, {"ab\r\n"}}, 64, peeked(true, 4, 0, "ab"), 1},
        {"a line at last", {nothing, nothing, {"ab\r\n"}}, 64, peeked(true, 4, 0, "ab"), 2},
        {"an error", {{"", ECONNRESET, 0, false}}, 64, peeked(false, 0, ECONNRESET, ""), 0},
        {"an error later", {nothing, {"", ENOTCONN, 0, false}}, 64, peeked(false, 0, ENOTCONN, ""), 1},
        {"an error, without room", {nothing, {"", EIO, 0, false}}, 1, peeked(false, 0, EIO, ""), 1},
        // A connection that is refused leaves the size as it was, and the buffer may hold an old line.
        {"an error and a size",
         {{"old line\r\n", ECONNREFUSED, 63, false}},
         64,
         peeked(false, 0, ECONNREFUSED, ""),
         0},
        {"more than there is room", {{"ab\r\n", 0, 1000, true}}, 8, peeked(true, 7, 0, "ab"), 0},
        {"less than nothing", {3, {"", 0, -5, true}}, 8, peeked(false, 0, 0, ""), 2},
    };

    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const int before = pauses();
        connection.peekSteps = row.looks;
        EXPECT_EQ(peekLine(row.capacity), row.result);
        EXPECT_EQ(pauses() - before, row.pauses);
        EXPECT_THAT(connection.peekSteps, IsEmpty());
        EXPECT_EQ(m_line[static_cast<std::size_t>(row.capacity)], '#');
    }
}

TEST_F(VornConnection_Line, TheResultOfThePeekIsIgnored) {
    connection.peekSteps = {{"ab\r\n", 0, {}, false}};
    EXPECT_EQ(peekLine(64), peeked(true, 4, 0, "ab"));
    connection.peekSteps = {{"", 0, 0, true}, {"", 0, 0, true}, {"", 0, 0, true}};
    EXPECT_EQ(peekLine(64), peeked(false, 0, 0, ""));
}

TEST_F(VornConnection_Line, LineThatJustFitsIsFound) {
    connection.incoming = "abc\r\nrest";
    EXPECT_EQ(peekLine(6), peeked(true, 5, 0, "abc"));
    EXPECT_EQ(m_line[6], '#');
    EXPECT_EQ(peekLine(5), peeked(false, 4, 0, "abc\r"));
    EXPECT_EQ(m_line[5], '#');
}

TEST_F(VornConnection_Line, BehindWhatIsWaiting_OnlyTheTerminatorIsWritten) {
    connection.incoming = "ab\r\n";
    EXPECT_EQ(peekLine(64), peeked(true, 4, 0, "ab"));
    EXPECT_EQ(std::string(m_line.data(), 6), std::string("ab\0\n\0#", 6));
    EXPECT_EQ(std::count(m_line.begin() + 5, m_line.end(), '#'), static_cast<long>(m_line.size() - 5));
}

TEST_F(VornConnection_Line, WithRoomForTheTerminatorOnly_PeekLineLooksThreeTimesForNoBytes) {
    connection.incoming = "abc\r\n";
    EXPECT_EQ(peekLine(1), peeked(false, 0, 0, ""));
    EXPECT_THAT(connection.calls,
                ElementsAre("peekLine 1 error -77", "peekBytes 0", "peekBytes 0", "peekBytes 0"));
    EXPECT_EQ(pauses(), 2);
    EXPECT_EQ(m_line[1], '#');
    EXPECT_EQ(connection.incoming, "abc\r\n");
}

TEST_F(VornConnection_Line, WithoutRoomForTheTerminator_PeekLineAsksAndWritesNothing) {
    for (const int capacity : {0, -1, INT_MIN + 1, INT_MIN}) {
        m_line.fill('#');
        connection.calls.clear();
        int size = capacity;
        error = untouched;
        EXPECT_FALSE(connection.peekLine(m_line.data(), size, error)) << capacity;
        EXPECT_EQ(size, 0) << capacity;
        EXPECT_EQ(error, 0) << capacity;
        EXPECT_EQ(m_line[0], '#') << capacity;
        EXPECT_THAT(connection.calls, SizeIs(1)) << capacity;
    }
}

TEST_F(VornConnectionTest, WhileSignalsArrive_PeekLinePausesAsLong) {
    // Ten milliseconds from signal to signal: a pause that a signal cuts short is a tenth of what it should
    // be.
    const Interruptions signals(10);
    const auto start = std::chrono::steady_clock::now();
    std::array<char, 16> line{};
    int size = line.size();
    int error = untouched;
    EXPECT_FALSE(connection.peekLine(line.data(), size, error));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

// getLine().

TEST_F(VornConnection_Line, WhenALineIsWaiting_GetLineLooksAndConsumesItWithItsEnd) {
    connection.incoming = "abc\r\ndef";
    EXPECT_EQ(getLine(64), "abc");
    EXPECT_THAT(connection.calls,
                ElementsAre("peekLine 64 error 0", "peekBytes 63", "get 5", "receive 5 all"));
}

TEST_F(VornConnection_Line, GetLineConsumesAWholeLineThatFitsAndNothingElse) {
    const struct {
        std::string incoming;
        int capacity;
        std::optional<std::string> line;
        std::string left;
    } rows[] = {
        {"abc\r\ndef", 64, "abc", "def"},           {"\r\nabc\r\n", 64, "", "abc\r\n"},
        {"abc\r\nrest", 6, "abc", "rest"},          {"abc\r\n", 5, std::nullopt, "abc\r\n"},
        {"abc\r\n", 1, std::nullopt, "abc\r\n"},    {"abc\r\n", 0, std::nullopt, "abc\r\n"},
        {"abc\r\n", -1, std::nullopt, "abc\r\n"},   {"def", 64, std::nullopt, "def"},
        {"a\tb\r\n", 64, std::nullopt, "a\tb\r\n"},
    };

    for (const auto& row : rows) {
        SCOPED_TRACE(row.incoming + " into " + std::to_string(row.capacity));
        connection.incoming = row.incoming;
        EXPECT_EQ(getLine(row.capacity), row.line);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(connection.incoming, row.left);
        EXPECT_EQ(m_line[static_cast<std::size_t>(std::max(row.capacity, 0))], '#');
    }
}

TEST_F(VornConnection_Line, WhenThePeekReportsAnError_GetLineReturnsNullWithIt) {
    connection.peekSteps = {{"abc\r\n", ECONNRESET, 5, true}};
    EXPECT_EQ(getLine(64), std::nullopt);
    EXPECT_EQ(error, ECONNRESET);
    EXPECT_THAT(connection.calls, ElementsAre("peekLine 64 error 0", "peekBytes 63"));
}

TEST_F(VornConnection_Line, WhileNothingComes_GetLineAsksAgainAndAgain) {
    // 10 rounds of three looks each before the line is there.
    for (int i = 0; i < 30; ++i)
        connection.peekSteps.push_back({"", 0, 0, false});
    connection.incoming = "abc\r\n";
    EXPECT_EQ(getLine(64), "abc");
    EXPECT_EQ(std::count(connection.calls.begin(), connection.calls.end(), "peekLine 64 error 0"), 11);
    EXPECT_EQ(pauses(), 20);
}

TEST_F(VornConnection_Line, WhenTheConsumingReadIsShort_GetLineThrows) {
    connection.peekSteps = {{"abc\r\n"}};
    connection.incoming = "abc";
    connection.readError = ENOTCONN;
    EXPECT_EQ(failureOf([&] { getLine(64); }), failure(readFailed, ENOTCONN));
}
