// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ConnectionTestTools.h"
#include "Interpose.h"
#include "Interruptions.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"

#include <VornBufferConnection.h>
#include <VornLogging.h>
#include <VornSmartPointer.h>

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

    void initialize() override { note("initialize"); }

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

/** The base's own hooks, which ScriptedConnection hides behind its records. */
class PlainConnection : public ScriptedConnection {
public:
    using ScriptedConnection::ScriptedConnection;

    void initialize() override { VornConnection::initialize(); }

    void cleanup() override { VornConnection::cleanup(); }
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
    void SetUp() override {
        VornConnectionTest::SetUp();
        m_noPause.emplace("clock_nanosleep", 0, 1, FaultRule::always);
        m_noPause->returning(0);
        m_trace.emplace(CallTrace::Scope::CallingThread);
    }

    void TearDown() override {
        m_trace.reset();
        m_noPause.reset();
        VornConnectionTest::TearDown();
    }

    int pauses() const { return m_trace->calls("clock_nanosleep"); }

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
    std::optional<FaultRule> m_noPause;
    std::optional<CallTrace> m_trace;
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

TEST_F(VornConnectionTest, WhenDestroyed_DoesNotDisconnect) {
    static int disconnects;
    disconnects = 0;

    class Counting : public ScriptedConnection {
    public:
        void disconnect() override { ++disconnects; }
    };

    {
        const VornSmartPointer<VornConnection> shared(new Counting);
        EXPECT_EQ(shared->refCount(), 1);
        shared->disconnect();
    }
    EXPECT_EQ(disconnects, 1);
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
    EXPECT_THAT(connection.calls, ElementsAre("initialize", "initialize"));
}

TEST_F(VornConnectionTest, CleanupOnlyMarksItUnconnected) {
    PlainConnection plain;
    plain.m_bConnected = true;
    plain.m_bRaw = true;
    plain.m_bLocalAccess = true;
    plain.m_sServiceName = "svc";
    plain.cleanup();
    EXPECT_FALSE(plain.m_bConnected);
    EXPECT_TRUE(plain.m_bRaw);
    EXPECT_TRUE(plain.m_bLocalAccess);
    EXPECT_EQ(plain.m_sServiceName, "svc");
    EXPECT_THAT(plain.calls, IsEmpty());
}

TEST_F(VornConnectionTest, InitializeOfTheBaseDoesNothing) {
    PlainConnection plain;
    plain.setRaw(false);
    EXPECT_FALSE(plain.m_bConnected);
    EXPECT_THAT(plain.calls, IsEmpty());
}

// Establishing.

TEST_F(VornConnectionTest, WhenEstablished_AsksTheTransportWithAnEmptyMessage) {
    EXPECT_EQ(failureOf([&] { connection.establish(); }), none);
    EXPECT_THAT(connection.calls, ElementsAre("establish"));
    EXPECT_EQ(connection.messageOnEntry, "");
}

TEST_F(VornConnectionTest, WhenEstablishingGivesACode_ThrowsMessageAndCode) {
    connection.establishText = "no way.";
    connection.establishCode = 111;
    EXPECT_EQ(failureOf([&] { connection.establish(); }), failure("no way.", 111));
}

TEST_F(VornConnectionTest, WhenEstablishingGivesACodeAlone_ThrowsAnEmptyText) {
    connection.establishCode = 13;
    EXPECT_EQ(failureOf([&] { connection.establish(); }), failure("", 13));
}

TEST_F(VornConnectionTest, WhenEstablishingGivesATextWithCodeZero_ThrowsToo) {
    connection.establishText = serviceFailed;
    EXPECT_EQ(failureOf([&] { connection.establish(); }), failure(serviceFailed, 0));
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

TEST_F(VornConnectionTest, StringThatBeginsWithAZeroByteIsEmptyAndConsumedWhole) {
    connection.incoming = bytes("00 00 00 02 00 62 7a");
    EXPECT_EQ(connection.receiveString(), VornString());
    EXPECT_EQ(connection.incoming, "z");
}

TEST_F(VornConnectionTest, LongStringIsReadInOneGet) {
    const std::string text(300'000, 'x');
    connection.incoming = bytes("00 04 93 e0") + text + "rest";
    EXPECT_EQ(connection.receiveString(), text);
    EXPECT_EQ(connection.incoming, "rest");
    EXPECT_THAT(connection.calls, Contains("get 300000"));
}

TEST_F(VornConnectionTest, LongStringIsCutAtItsFirstZeroByteToo) {
    const std::string text = std::string(70'000, 'x') + std::string(1, '\0') + std::string(29'999, 'y');
    connection.incoming = bytes("00 01 86 a0") + text + "rest";
    EXPECT_EQ(connection.receiveString(), std::string(70'000, 'x'));
    EXPECT_EQ(connection.incoming, "rest");
}

TEST_F(VornConnectionTest, WhenReceiveIntIsOverridden_ReceiveStringTakesItsLengthFromThere) {
    class FixedLength : public ScriptedConnection {
    public:
        int receiveInt() override { return 2; }
    };

    FixedLength fixed;
    fixed.incoming = "hello";
    EXPECT_EQ(fixed.receiveString(), "he");
    EXPECT_EQ(fixed.incoming, "llo");
}

TEST_F(VornConnectionTest, WhenGetIsOverridden_TypedReadsSeeWhatItDelivers) {
    class Filling : public ScriptedConnection {
    public:
        int get(void* pBuffer, int nSize) override {
            std::memset(pBuffer, 1, static_cast<std::size_t>(nSize));
            return nSize;
        }
    };

    Filling filling;
    EXPECT_EQ(filling.receiveShort(), 0x0101);
    EXPECT_EQ(filling.receiveInt(), 0x01010101);
    EXPECT_EQ(filling.receiveLong(), 0x01010101L);
}

TEST_F(VornConnectionTest, WhenPutAndTransferAreOverridden_NothingGoesPastThem) {
    class Swallowing : public ScriptedConnection {
    public:
        using ScriptedConnection::transfer;

        void put(void* /*pBuffer*/, int nSize) override { swallowed += nSize; }

        void transfer(short nValue) override { shorts.push_back(nValue); }

        int swallowed = 0;
        std::vector<short> shorts;
    };

    Swallowing swallowing;
    swallowing.transfer(7);
    swallowing.transfer(VornString("abc"));
    swallowing.transfer(7L);
    swallowing.transfer(true);
    swallowing.transferACK();
    swallowing.transferError();
    EXPECT_EQ(swallowing.swallowed, 4 + 4 + 3 + 8);
    EXPECT_THAT(swallowing.shorts, ElementsAre(1, 1, 0, 1, -1));
    EXPECT_EQ(swallowing.written, "");
}

// Lengths which a peer announces.

TEST_F(VornConnectionTest, WhenAnnouncedLengthIsNegative_ReadFailsWithCodeZeroAndNothingElseIsRead) {
    for (const char* length : {"ff ff ff ff", "ff ff ff fe", "80 00 00 00"}) {
        SCOPED_TRACE(length);
        ScriptedConnection hostile;
        hostile.incoming = bytes(length) + "rest";
        EXPECT_EQ(failureOf([&] { hostile.receiveString(); }), failure(readFailed, 0));
        EXPECT_EQ(hostile.incoming, "rest");
        EXPECT_THAT(hostile.calls,
                    ElementsAre("establish", "receiveInt", "establish", "get 4", "receive 4 all"));
    }
}

TEST_F(VornConnectionTest, WhenAnnouncedLengthIsHuge_ReadsItWithoutTouchingTheMemory) {
    connection.incoming = bytes("7f ff ff ff") + "abc";
    long during = LONG_MAX;
    connection.onReceive = [&] {
        connection.readError = connection.incoming.size() == 3 ? ENOTCONN : 0;
        during = residentKiB();
    };
    const long before = residentKiB();
    EXPECT_EQ(failureOf([&] { connection.receiveString(); }), failure(readFailed, ENOTCONN));
    EXPECT_LT(during - before, noticeableKiB);
    EXPECT_THAT(connection.calls, Contains("get 2147483647"));
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

TEST_F(VornConnectionTest, WhenFewerBytesCome_GetThrowsTheTransportsError) {
    connection.incoming = "ab";
    connection.readError = ECONNRESET;
    char buffer[4] = {};
    EXPECT_EQ(failureOf([&] { connection.get(buffer, 4); }), failure(readFailed, ECONNRESET));
}

TEST_F(VornConnectionTest, WhenFewerBytesComeWithoutAnError_GetThrowsCodeZero) {
    connection.incoming = "ab";
    char buffer[4] = {};
    EXPECT_EQ(failureOf([&] { connection.get(buffer, 4); }), failure(readFailed, 0));
}

TEST_F(VornConnectionTest, WhenMoreBytesAreToldOf_GetThrowsToo) {
    connection.readCount = 5;
    char buffer[4] = {};
    EXPECT_EQ(failureOf([&] { connection.get(buffer, 4); }), failure(readFailed, 0));
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
}

TEST_F(VornConnection_Death, WhenEstablishingThrowsSomethingElse_TypedOperationsEndTheProcess) {
    connection.onEstablish = [] { throw 5; };
    const auto died = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(connection.transfer(1), died, "");
    EXPECT_EXIT(connection.transferACK(), died, "");
    EXPECT_EXIT(connection.receiveString(), died, "");
}

TEST_F(VornConnection_Death, WhenTheTransportRunsOutOfMemory_GetEndsTheProcess) {
    connection.onReceive = [] { throw std::bad_alloc(); };
    EXPECT_EXIT(connection.receiveInt(), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(VornConnection_Death, WhenAnOverriddenGetRunsOutOfMemory_ReceiveStringEndsTheProcess) {
    class Failing : public VornNet::VornBufferConnection {
    public:
        int get(void* buffer, int size) override {
            if (m_isFailing)
                throw std::bad_alloc();
            return VornBufferConnection::get(buffer, size);
        }

        int receiveInt() override {
            m_isFailing = true; // the length has come, the text is next
            return 3;
        }

    private:
        bool m_isFailing = false;
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

TEST_F(VornConnectionTest, WhenNoAnswerComes_TheHandshakeFails) {
    connection.setServiceName("svc");
    EXPECT_FALSE(connection.connectToServiceImpl());
    connection.readCount = -1;
    EXPECT_FALSE(connection.connectToServiceImpl());
}

TEST_F(VornConnectionTest, WhenSendingReturnsMinusOne_TheHandshakeFailsWithoutReading) {
    connection.setServiceName("svc");
    connection.incoming = "+";
    connection.writeCount = -1;
    EXPECT_FALSE(connection.connectToServiceImpl());
    EXPECT_EQ(connection.incoming, "+");
}

TEST_F(VornConnectionTest, WhenSendingReportsAnErrorWithoutMinusOne_TheHandshakeGoesOn) {
    connection.setServiceName("svc");
    connection.incoming = "+";
    connection.writeCount = 0;
    connection.writeError = EPIPE;
    EXPECT_TRUE(connection.connectToServiceImpl());
}

TEST_F(VornConnectionTest, WhenReadingReportsAnErrorBesideTheByte_TheHandshakeSucceeds) {
    connection.setServiceName("svc");
    connection.incoming = "+";
    connection.readError = EMSGSIZE;
    EXPECT_TRUE(connection.connectToServiceImpl());
}

TEST_F(VornConnectionTest, ServiceNameIsSentUpToItsFirstZeroByte) {
    connection.setServiceName(VornString("sv\0c", 4));
    connection.incoming = "+";
    EXPECT_TRUE(connection.connectToServiceImpl());
    EXPECT_EQ(connection.written, "sv\r\n");
}

TEST_F(VornConnectionTest, LongServiceNameIsSentWhole) {
    const std::string name(100'000, 'n');
    connection.setServiceName(name);
    connection.incoming = "+";
    EXPECT_TRUE(connection.connectToServiceImpl());
    EXPECT_EQ(connection.written, name + "\r\n");
}

TEST_F(VornConnectionTest, ConnectToServiceThrowsWhenTheHandshakeFails) {
    connection.setServiceName("svc");
    connection.incoming = "-";
    EXPECT_EQ(failureOf([&] { connection.connectToService(); }), failure(serviceFailed, 0));
    connection.incoming = "+";
    EXPECT_EQ(failureOf([&] { connection.connectToService(); }), none);
}

TEST_F(VornConnectionTest, ConnectToServiceGoesThroughTheVirtualHandshake) {
    class Refusing : public ScriptedConnection {
    public:
        bool connectToServiceImpl() override { return false; }
    };

    Refusing refusing;
    EXPECT_EQ(failureOf([&] { refusing.connectToService(); }), failure(serviceFailed, 0));
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

TEST_F(VornConnection_Line, WhenTheLineComesLater_PeekLineFindsItInALaterLook) {
    connection.peekSteps = {{"", 0, {}, false}, {"ab\r\n"}};
    EXPECT_EQ(peekLine(64), peeked(true, 4, 0, "ab"));
    EXPECT_EQ(pauses(), 1);
    connection.peekSteps = {{"", 0, {}, false}, {"", 0, {}, false}, {"cd\r\n"}};
    EXPECT_EQ(peekLine(64), peeked(true, 4, 0, "cd"));
}

TEST_F(VornConnection_Line, TheResultOfThePeekIsIgnored) {
    connection.peekSteps = {{"ab\r\n", 0, {}, false}};
    EXPECT_EQ(peekLine(64), peeked(true, 4, 0, "ab"));
    connection.peekSteps = {{"", 0, 0, true}, {"", 0, 0, true}, {"", 0, 0, true}};
    EXPECT_EQ(peekLine(64), peeked(false, 0, 0, ""));
}

TEST_F(VornConnection_Line, WhenThePeekReportsAnError_PeekLineGivesUpAtOnce) {
    const LogCapture log(4);
    connection.peekSteps = {{"", ECONNRESET, 0, false}};
    EXPECT_EQ(peekLine(64), peeked(false, 0, ECONNRESET, ""));
    EXPECT_THAT(connection.calls, ElementsAre("peekLine 64 error -77", "peekBytes 63"));
    EXPECT_EQ(pauses(), 0);
    EXPECT_THAT(log.records(), ElementsAre(Record{4, noLineText(0)}));
}

TEST_F(VornConnection_Line, WhenThePeekReportsAnErrorAndASize_TheErrorWins) {
    // A connection that is refused leaves the size as it was, and the buffer may hold an old line.
    connection.peekSteps = {{"old line\r\n", ECONNREFUSED, 63, false}};
    EXPECT_EQ(peekLine(64), peeked(false, 0, ECONNREFUSED, ""));
}

TEST_F(VornConnection_Line, WhenTheErrorComesInALaterLook_PeekLineStopsThere) {
    connection.peekSteps = {{"", 0, 0, false}, {"", ENOTCONN, 0, false}};
    EXPECT_EQ(peekLine(64), peeked(false, 0, ENOTCONN, ""));
    EXPECT_EQ(pauses(), 1);
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

TEST_F(VornConnection_Line, WhenMoreIsClaimedThanThereIsRoom_NothingIsWrittenPastTheBuffer) {
    connection.peekSteps = {{"ab\r\n", 0, 1000, true}};
    EXPECT_EQ(peekLine(8), peeked(true, 7, 0, "ab"));
    EXPECT_EQ(m_line[8], '#');
    connection.peekSteps = {{"", 0, -5, true}, {"", 0, -5, true}, {"", 0, -5, true}};
    EXPECT_EQ(peekLine(8), peeked(false, 0, 0, ""));
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

TEST_F(VornConnection_Line, WithRoomForTheTerminatorOnly_TheErrorOfThePeekIsReported) {
    connection.peekSteps = {{"", 0, 0, false}, {"", ECONNRESET, 0, false}};
    EXPECT_EQ(peekLine(1), peeked(false, 0, ECONNRESET, ""));
    EXPECT_EQ(pauses(), 1);
    connection.peekSteps = {{"", ENOTCONN, 0, false}};
    EXPECT_EQ(getLine(1), std::nullopt);
    EXPECT_EQ(error, ENOTCONN);
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

TEST_F(VornConnection_Line, BelowLevelFourNothingIsLogged) {
    const LogCapture log(3);
    connection.incoming = "def";
    peekLine(64);
    connection.incoming = "a\tb\r\n";
    peekLine(64);
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornConnection_Line, WhenAccessIsNotAllowedNothingIsLogged) {
    const LogCapture log(9);
    VornLogging::setAccessAllowed(false);
    connection.incoming = "def";
    peekLine(64);
    connection.incoming = "a\tb\r\n";
    peekLine(64);
    EXPECT_THAT(log.records(), IsEmpty());
}

// getLine().

TEST_F(VornConnection_Line, WhenALineIsWaiting_GetLineConsumesItWithItsEnd) {
    connection.incoming = "abc\r\ndef";
    EXPECT_EQ(getLine(64), "abc");
    EXPECT_EQ(error, 0);
    EXPECT_EQ(connection.incoming, "def");
    EXPECT_THAT(connection.calls,
                ElementsAre("peekLine 64 error 0", "peekBytes 63", "get 5", "receive 5 all"));
}

TEST_F(VornConnection_Line, WhenAnEmptyLineIsWaiting_GetLineReturnsItAndConsumesItsEnd) {
    connection.incoming = "\r\nabc\r\n";
    EXPECT_EQ(getLine(64), "");
    EXPECT_EQ(getLine(64), "abc");
    EXPECT_EQ(connection.incoming, "");
}

TEST_F(VornConnection_Line, LineThatJustFitsIsRead) {
    connection.incoming = "abc\r\nrest";
    EXPECT_EQ(getLine(6), "abc");
    EXPECT_EQ(m_line[6], '#');
    EXPECT_EQ(connection.incoming, "rest");
}

TEST_F(VornConnection_Line, WhenOnlyAPartOfALineIsWaiting_GetLineReturnsNullAtOnce) {
    connection.incoming = "def";
    EXPECT_EQ(getLine(64), std::nullopt);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(connection.incoming, "def");
    EXPECT_EQ(pauses(), 0);
}

TEST_F(VornConnection_Line, WhenTheLineIsUnprintable_GetLineReturnsNullAndLeavesIt) {
    connection.incoming = "a\tb\r\n";
    EXPECT_EQ(getLine(64), std::nullopt);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(connection.incoming, "a\tb\r\n");
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

TEST_F(VornConnection_Line, WhenPeekLineIsOverridden_GetLineGoesThroughIt) {
    class FixedLine : public ScriptedConnection {
    public:
        bool peekLine(char* pBuffer, int& nSize, int& nErrorCode) override {
            std::memcpy(pBuffer, "xy", 3);
            nSize = 2;
            nErrorCode = 0;
            return true;
        }
    };

    FixedLine fixed;
    fixed.incoming = "ab\r\n";
    EXPECT_STREQ(fixed.getLine(m_line.data(), 64, error), "ab");
    EXPECT_THAT(fixed.calls, ElementsAre("get 4", "receive 4 all"));
}

TEST_F(VornConnection_Line, WithoutRoomForALine_GetLineReturnsNull) {
    connection.incoming = "abc\r\n";
    for (const int capacity : {1, 0, -1}) {
        EXPECT_EQ(getLine(capacity), std::nullopt) << capacity;
        EXPECT_EQ(error, 0) << capacity;
        EXPECT_EQ(m_line[1], '#') << capacity;
    }
    EXPECT_EQ(connection.incoming, "abc\r\n");
}
