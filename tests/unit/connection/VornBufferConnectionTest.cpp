// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ConnectionTestTools.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Memory.h"
#include "Process.h"

#include <VornBufferConnection.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstring>
#include <iostream>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornNet;
using namespace VornTest;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

#ifdef VORNTEST_OWN_REALLOC

/** The sizes that this thread has asked realloc() for while it exists. */
class ReallocTrace {
public:
    ReallocTrace() { s_pCurrent = this; }

    ~ReallocTrace() { s_pCurrent = nullptr; }

    ReallocTrace(const ReallocTrace&) = delete;
    ReallocTrace& operator=(const ReallocTrace&) = delete;

    std::vector<std::size_t> sizes() const { return {m_sizes.begin(), m_sizes.begin() + m_count}; }

    void failFromNowOn() { m_fails = true; }

    /** Whether realloc() is to do its work. */
    static bool notice(std::size_t size) {
        if (s_pCurrent == nullptr)
            return true;
        s_pCurrent->m_sizes.at(static_cast<std::size_t>(s_pCurrent->m_count++)) = size;
        return !s_pCurrent->m_fails;
    }

private:
    std::array<std::size_t, 1000> m_sizes{}; // what records an allocation must not allocate
    std::ptrdiff_t m_count = 0;
    bool m_fails = false;
    static inline thread_local ReallocTrace* s_pCurrent = nullptr;
};

#endif

class Probe : public VornBufferConnection {
public:
    using VornBufferConnection::VornBufferConnection;

    explicit Probe(const std::string& message)
        : VornBufferConnection(const_cast<char*>(message.data()), static_cast<int>(message.size()),
                               "sender") {}

    using VornBufferConnection::m_bClientConnection;
    using VornBufferConnection::m_bConnected;
    using VornBufferConnection::m_nBufferSize;
    using VornBufferConnection::m_nInIndex;
    using VornBufferConnection::m_nOutIndex;
    using VornBufferConnection::m_pDataBuffer;

    int establish(VornString& message) { return establishImpl(message); }

    void initialize() override { ++initialized; }

    void cleanup() override {
        ++cleanedUp;
        VornBufferConnection::cleanup();
    }

    std::string written() const {
        return {static_cast<const char*>(buf()), static_cast<std::size_t>(std::max(size(), 0))};
    }

    int initialized = 0;
    int cleanedUp = 0;
};

class VornBufferConnectionTest : public LeakCheckedTest {
protected:
    std::string read(VornConnection& connection, long count) {
        std::string data(static_cast<std::size_t>(count), '#');
        const RawResult result = rawRead(connection, data, count, true);
        EXPECT_EQ(result.error, 0);
        return data.substr(0, static_cast<std::size_t>(result.count));
    }

    Probe buffer;
};

} // namespace

#ifdef VORNTEST_OWN_REALLOC

extern "C" void* __libc_realloc(void* block, std::size_t size);

extern "C" void* realloc(void* block, std::size_t size) {
    return ReallocTrace::notice(size) ? __libc_realloc(block, size) : nullptr;
}

#endif

KIT_ROLE(bufferWithScarceMemory) {
    limitMemory();
    Probe buffer;
    // One byte stands for the gigabyte: what cannot be stored is not looked at.
    char byte = 'x';
    const auto writeTooMuch = [&] {
        long error = untouched;
        const long count = buffer.transfer(&byte, 1024L * 1024 * 1024, &error);
        std::cout << count << ' ' << error << ' ' << buffer.size() << ' ' << buffer.m_nInIndex << ' '
                  << buffer.m_nBufferSize << ' ' << (buffer.buf() == nullptr ? "null" : "block") << '\n';
    };
    writeTooMuch();
    buffer.transfer(7);
    writeTooMuch();
    buffer.put(&byte, 1024 * 1024 * 1024);
    buffer.transfer(8);
    std::cout << hex(buffer.written()) << '\n';
    // A text that is not all there costs no memory: its end is seen before there is an attempt to take any.
    std::string message = bytes("7f ff ff ff") + "abc";
    VornBufferConnection announcing(message.data(), static_cast<int>(message.size()), "sender");
    std::cout << failureOf([&] { announcing.receiveString(); })->code << '\n';
    return 0;
}

// Construction.

TEST_F(VornBufferConnectionTest, WhenFresh_HasNeitherBlockNorSize) {
    EXPECT_EQ(buffer.m_pDataBuffer, nullptr);
    EXPECT_EQ(buffer.m_nBufferSize, 0);
    EXPECT_EQ(buffer.m_nInIndex, -1);
    EXPECT_EQ(buffer.m_nOutIndex, -1);
    EXPECT_EQ(buffer.size(), -1);
    EXPECT_EQ(buffer.buf(), nullptr);
    EXPECT_TRUE(buffer.m_bClientConnection);
    EXPECT_FALSE(buffer.m_bConnected);
    EXPECT_EQ(buffer.getRemoteName(), "");
}

TEST_F(VornBufferConnectionTest, WhenMadeFromBytes_HoldsACopyOfThem) {
    char message[] = "0123456789";
    Probe filled(message, 10, "sender");
    std::memset(message, 'x', sizeof(message));
    EXPECT_EQ(filled.m_nInIndex, 0);
    EXPECT_EQ(filled.size(), 10);
    EXPECT_EQ(filled.m_nBufferSize, 8192);
    EXPECT_EQ(filled.written(), "0123456789");
    EXPECT_FALSE(filled.m_bClientConnection);
    EXPECT_FALSE(filled.m_bConnected);
    EXPECT_EQ(filled.getRemoteName(), "sender");
    EXPECT_EQ(read(filled, 4), "0123");
    EXPECT_EQ(read(filled, 8), "456789");
    EXPECT_EQ(read(filled, 8), "");
}

TEST_F(VornBufferConnectionTest, WhenMadeFromNoBytes_IsEmptyButInitialisedAndCanBeWrittenTo) {
    Probe empty(nullptr, 0, "sender");
    EXPECT_EQ(empty.m_nInIndex, 0);
    EXPECT_EQ(empty.m_nOutIndex, 0);
    EXPECT_EQ(empty.size(), 0);
    EXPECT_EQ(empty.m_nBufferSize, 0);
    EXPECT_NE(empty.buf(), nullptr);
    EXPECT_EQ(peek(empty, 4), peeked(true, 4, 0, std::string(4, '\0')));
    EXPECT_EQ(read(empty, 4), "");
    EXPECT_EQ(failureOf([&] { empty.receiveShort(); }), failure(readFailed, 0));
    empty.transfer(7);
    EXPECT_EQ(empty.m_nBufferSize, 8192);
    EXPECT_EQ(empty.receiveInt(), 7);
}

// Reading before anything was written.

TEST_F(VornBufferConnectionTest, WhenFresh_ReceiveReturnsNothing) {
    std::string data = "####";
    EXPECT_EQ(rawRead(buffer, data, 4, true), raw(0, 0));
    EXPECT_EQ(data, "####");
    EXPECT_EQ(failureOf([&] { buffer.receiveString(); }), failure(readFailed, 0));
}

TEST_F(VornBufferConnectionTest, WhenFresh_PeekReturnsFalse) {
    EXPECT_EQ(peek(buffer, 100), peeked(false, 100, 0));
}

// Establishing.

TEST_F(VornBufferConnectionTest, TheFirstTypedOperationEstablishesIt) {
    buffer.transfer(7);
    EXPECT_TRUE(buffer.m_bConnected);
    EXPECT_EQ(buffer.initialized, 1);
    buffer.transfer(7);
    EXPECT_EQ(buffer.initialized, 1);
}

TEST_F(VornBufferConnectionTest, RawOperationsDoNotEstablishIt) {
    EXPECT_EQ(rawWrite(buffer, "abc"), raw(3, 0));
    EXPECT_EQ(read(buffer, 1), "a");
    EXPECT_EQ(peek(buffer, 1), peeked(true, 1, 0, "b"));
    EXPECT_FALSE(buffer.m_bConnected);
    EXPECT_EQ(buffer.initialized, 0);
}

TEST_F(VornBufferConnectionTest, EstablishingNeverFailsAndLeavesTheMessageAlone) {
    VornString message = "as it was";
    EXPECT_EQ(buffer.establish(message), 0);
    EXPECT_EQ(buffer.establish(message), 0);
    EXPECT_EQ(message, "as it was");
    EXPECT_TRUE(buffer.m_bConnected);
    EXPECT_EQ(buffer.initialized, 1);
}

TEST_F(VornBufferConnectionTest, AServiceNameMakesNoHandshake) {
    buffer.setServiceName("svc");
    buffer.transfer(7);
    EXPECT_EQ(hex(buffer.written()), "00 00 00 07");
}

// Disconnecting.

TEST_F(VornBufferConnectionTest, WhenDisconnected_KeepsDataAndPositions) {
    buffer.transfer(7);
    buffer.transfer(8);
    EXPECT_EQ(buffer.receiveInt(), 7);
    buffer.disconnect();
    EXPECT_FALSE(buffer.m_bConnected);
    EXPECT_EQ(buffer.cleanedUp, 1);
    EXPECT_EQ(buffer.size(), 8);
    EXPECT_EQ(buffer.m_nInIndex, 4);
    EXPECT_EQ(buffer.receiveInt(), 8);
    EXPECT_TRUE(buffer.m_bConnected);
    EXPECT_EQ(buffer.initialized, 2);
}

TEST_F(VornBufferConnectionTest, WhenNotConnected_DisconnectDoesNothing) {
    buffer.disconnect();
    EXPECT_EQ(buffer.cleanedUp, 0);
    buffer.transfer(7);
    buffer.disconnect();
    buffer.disconnect();
    EXPECT_EQ(buffer.cleanedUp, 1);
}

// How the block grows.

TEST_F(VornBufferConnectionTest, AFreshBlockGrowsByTheRequestRoundedUp) {
    for (const auto& [request, capacity] : std::vector<std::pair<std::size_t, int>>{
             {1, 8192}, {8191, 8192}, {8192, 8192}, {8193, 16384}, {16384, 16384}, {16385, 24576}}) {
        Probe fresh;
        EXPECT_EQ(rawWrite(fresh, std::string(request, 'x')), raw(static_cast<long>(request), 0));
        EXPECT_EQ(fresh.m_nBufferSize, capacity) << request;
        EXPECT_EQ(fresh.size(), static_cast<int>(request));
    }
}

TEST_F(VornBufferConnectionTest, WhenARequestDoesNotFit_TheStepOfTheRequestIsAddedWhole) {
    const struct {
        std::size_t size;
        int capacity;
    } requests[] = {{8000, 8192}, {192, 8192},   {0, 8192},     {1, 16384},     {8191, 16384},
                    {1, 24576},   {8192, 32768}, {8193, 49152}, {16382, 49152}, {1, 57344}};

    std::string written;
    for (const auto& request : requests) {
        const std::string piece(request.size, static_cast<char>('a' + written.size() % 26));
        written += piece;
        EXPECT_EQ(rawWrite(buffer, piece), raw(static_cast<long>(request.size), 0));
        EXPECT_EQ(buffer.m_nBufferSize, request.capacity) << request.size << " of " << written.size();
        EXPECT_EQ(buffer.written(), written);
    }
}

TEST_F(VornBufferConnectionTest, TypedWritesGrowTheBlockByTheSameSteps) {
    for (int i = 0; i < 2048; ++i)
        buffer.transfer(i);
    EXPECT_EQ(buffer.m_nBufferSize, 8192);
    EXPECT_EQ(buffer.size(), 8192);
    buffer.transfer(static_cast<short>(1));
    EXPECT_EQ(buffer.m_nBufferSize, 16384);
    buffer.transfer(VornString(20'000, 'x'));
    // The length fits, the text is added as a step of its own.
    EXPECT_EQ(buffer.m_nBufferSize, 16384 + 24576);
    for (int i = 0; i < 2048; ++i)
        EXPECT_EQ(buffer.receiveInt(), i);
    EXPECT_EQ(buffer.receiveShort(), 1);
    EXPECT_EQ(buffer.receiveString(), VornString(20'000, 'x'));
}

#ifdef VORNTEST_OWN_REALLOC

TEST_F(VornBufferConnectionTest, EachGrowthAsksReallocForTheCapacityAndTheStep) {
    constexpr int megabyte = 1024 * 1024;
    std::vector<std::size_t> expected = {8192, 16384, 40960};
    const ReallocTrace trace;
    rawWrite(buffer, std::string(8192, 'a'));
    rawWrite(buffer, "b");
    rawWrite(buffer, std::string(20'000, 'c'));
    while (buffer.m_nBufferSize < 2 * megabyte) {
        expected.push_back(static_cast<std::size_t>(buffer.m_nBufferSize) + 65'536);
        rawWrite(buffer, std::string(65'536, 'd'));
    }
    EXPECT_EQ(trace.sizes(), expected);
    EXPECT_EQ(static_cast<std::size_t>(buffer.m_nBufferSize), expected.back());
}

TEST_F(VornBufferConnectionTest, WhenReallocFails_AWriteIsDroppedWithoutASecondTry) {
    rawWrite(buffer, std::string(3'000'000, 'a'));
    const int capacity = buffer.m_nBufferSize;
    ReallocTrace trace;
    trace.failFromNowOn();
    EXPECT_EQ(rawWrite(buffer, std::string(10'000, 'b')), raw(0, 0));
    EXPECT_THAT(trace.sizes(), ElementsAre(static_cast<std::size_t>(capacity) + 16'384));
    EXPECT_EQ(buffer.m_nBufferSize, capacity);
    EXPECT_EQ(buffer.size(), 3'000'000);
    EXPECT_EQ(buffer.m_nInIndex, 0);
}

#endif

TEST_F(VornBufferConnectionTest, AnAppendOfNoBytesMakesAnInitialisedEmptyBlock) {
    EXPECT_EQ(rawWrite(buffer, ""), raw(0, 0));
    EXPECT_EQ(buffer.size(), 0);
    EXPECT_EQ(buffer.m_nInIndex, 0);
    EXPECT_EQ(buffer.m_nBufferSize, 0);
}

TEST_F(VornBufferConnectionTest, ConsumedSpaceIsNotUsedAgain) {
    rawWrite(buffer, std::string(8192, 'a'));
    EXPECT_EQ(read(buffer, 8192).size(), 8192U);
    rawWrite(buffer, "b");
    EXPECT_EQ(buffer.m_nBufferSize, 16384);
    EXPECT_EQ(buffer.size(), 8193);
    EXPECT_EQ(buffer.m_nInIndex, 8192);
    EXPECT_EQ(buffer.written().front(), 'a');
    EXPECT_EQ(read(buffer, 2), "b");
}

// What cannot be stored.

TEST_F(VornBufferConnectionTest, WhenARequestIsNegativeOrAboveTheSizesType_ItIsDroppedSilently) {
    rawWrite(buffer, "abc");
    char byte = 'x';
    for (const long request :
         {-1L, -8192L, LONG_MIN, static_cast<long>(INT_MAX), INT_MAX - 8192L, INT_MAX + 1L, LONG_MAX}) {
        long error = untouched;
        EXPECT_EQ(buffer.transfer(&byte, request, &error), 0) << request;
        EXPECT_EQ(error, 0) << request;
    }
    EXPECT_EQ(buffer.size(), 3);
    EXPECT_EQ(buffer.m_nInIndex, 0);
    EXPECT_EQ(buffer.m_nBufferSize, 8192);
    EXPECT_EQ(buffer.written(), "abc");
}

TEST_F(VornBufferConnectionTest, WhenThereIsNoMemory_AWriteIsDroppedSilently) {
    ChildProcess child = ChildProcess::spawnRoleWith(scarceMemoryEnvironment(), "bufferWithScarceMemory");
    EXPECT_EQ(child.readLine(), "0 0 -1 -1 0 null") << "it stays fresh";
    EXPECT_EQ(child.readLine(), "0 0 4 0 8192 block");
    EXPECT_EQ(child.readLine(), "00 00 00 07 00 00 00 08");
    EXPECT_EQ(child.readLine(), "0") << "and not ENOMEM";
    EXPECT_EQ(child.wait(), 0);
}

// Reading.

TEST_F(VornBufferConnectionTest, ReceiveTakesWhatThereIsWhetherOrNotItIsToWait) {
    for (const bool waitForAll : {true, false}) {
        Probe filled("0123456789");
        std::string data(16, '#');
        EXPECT_EQ(rawRead(filled, data, 4, waitForAll), raw(4, 0));
        EXPECT_EQ(rawRead(filled, data, 8, waitForAll), raw(6, 0));
        EXPECT_EQ(data, "456789##########");
        EXPECT_EQ(rawRead(filled, data, 8, waitForAll), raw(0, 0));
    }
}

TEST_F(VornBufferConnectionTest, ReceiveOfMoreThanAnIntCanCountTakesWhatThereIs) {
    Probe filled("abc");
    std::string data = "###";
    EXPECT_EQ(rawRead(filled, data, LONG_MAX, true), raw(3, 0));
    EXPECT_EQ(data, "abc");
}

TEST_F(VornBufferConnectionTest, WhenATypedReadIsShort_ItFailsAndHasTakenWhatThereWas) {
    Probe filled("ab");
    EXPECT_EQ(failureOf([&] { filled.receiveInt(); }), failure(readFailed, 0));
    EXPECT_EQ(filled.m_nInIndex, 2);
}

// Looking.

TEST_F(VornBufferConnectionTest, PeekCopiesWhatThereIsAndLeavesTheSize) {
    const struct {
        int read;
        int size;
        const char* data;
    } rows[] = {{0, 12, "0123456789######"},
                {0, 3, "012#############"},
                {7, 3, "789#############"},
                {10, 4, "################"},
                {0, -1, "################"}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.data);
        Probe filled("0123456789");
        read(filled, row.read);
        std::string data(16, '#');
        int size = row.size;
        int error = untouched;
        EXPECT_TRUE(filled.peekBytes(data.data(), size, error));
        EXPECT_EQ(size, row.size);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(data, row.data);
        EXPECT_EQ(filled.m_nInIndex, row.read);
    }
}

// Lines.

TEST_F(VornBufferConnectionTest, PeekLineTakesItsWholeBufferForExamined) {
    Probe filled("GET x\r\nmore");
    char line[64];
    int size = sizeof(line);
    int error = untouched;
    EXPECT_TRUE(filled.peekLine(line, size, error));
    EXPECT_EQ(size, 63);
    EXPECT_STREQ(line, "GET x");
}

TEST_F(VornBufferConnectionTest, OldBytesOfTheCallersBufferMakeNoLine) {
    Probe filled("def");
    char line[64];
    std::memset(line, 'X', sizeof(line));
    std::memcpy(line + 7, "\r\n", 2);
    int size = sizeof(line);
    int error = untouched;
    EXPECT_FALSE(filled.peekLine(line, size, error));
    EXPECT_EQ(size, 63);
    EXPECT_STREQ(line, "def");
    EXPECT_EQ(line[4], 'X');
    std::memcpy(line, "old line\r\n", 11);
    EXPECT_EQ(filled.getLine(line, sizeof(line), error), nullptr);
    EXPECT_EQ(error, 0);
}

TEST_F(VornBufferConnectionTest, OldBytesOfTheCallersBufferMakeNoLineOnAFreshConnection) {
    char line[64] = "old line\r\n";
    int size = sizeof(line);
    int error = untouched;
    EXPECT_FALSE(buffer.peekLine(line, size, error));
    EXPECT_EQ(size, 63);
    EXPECT_EQ(error, 0);
    EXPECT_STREQ(line, "");
    EXPECT_EQ(buffer.getLine(line, sizeof(line), error), nullptr);
}

// Overrides of derived classes.

TEST_F(VornBufferConnectionTest, OverridesOfADerivedClassAreSeenByTheTypedOperations) {
    class Counting : public VornBufferConnection {
    public:
        using VornBufferConnection::transfer;

        void put(void* pBuffer, int nSize) override {
            ++puts;
            VornBufferConnection::put(pBuffer, nSize);
        }

        int get(void* pBuffer, int nSize) override {
            ++gets;
            return VornBufferConnection::get(pBuffer, nSize);
        }

        int establishImpl(VornString& message) override {
            ++establishes;
            return VornBufferConnection::establishImpl(message);
        }

        int puts = 0;
        int gets = 0;
        int establishes = 0;
    };

    Counting counting;
    for (int i = 0; i < 3; ++i) {
        counting.transfer(1);
        counting.transfer(1L);
        counting.transfer(static_cast<short>(1));
        counting.receiveInt();
        counting.receiveLong();
        counting.receiveShort();
    }
    EXPECT_EQ(counting.puts, 9);
    EXPECT_EQ(counting.gets, 9);
    EXPECT_EQ(counting.establishes, 18);
}

TEST_F(VornBufferConnectionTest, OverriddenRawOperationsAreSeenByTheTypedOperations) {
    class Inverting : public VornBufferConnection {
    public:
        using VornBufferConnection::transfer;

        long transfer(const char* buf, long bufLen, long* error) override {
            std::string data(buf, static_cast<std::size_t>(bufLen));
            for (char& letter : data)
                letter = static_cast<char>(~letter);
            return VornBufferConnection::transfer(data.data(), bufLen, error);
        }
    };

    Inverting inverting;
    inverting.transfer(1);
    inverting.transfer(2);
    EXPECT_EQ(inverting.receiveInt(), ~1);
    EXPECT_EQ(inverting.receiveInt(), ~2);
}

TEST_F(VornBufferConnectionTest, OfTheClassItself_ManyValuesAreKeptAcrossDisconnects) {
    VornBufferConnection own;
    for (int i = 0; i < 10'000; ++i) {
        own.transfer(i);
        own.transfer(static_cast<long>(i));
        own.transfer(static_cast<short>(i));
        if (i % 1000 == 0)
            own.disconnect();
    }
    EXPECT_EQ(own.size(), 140'000);
    for (int i = 0; i < 10'000; ++i) {
        ASSERT_EQ(own.receiveInt(), i);
        ASSERT_EQ(own.receiveLong(), i);
        ASSERT_EQ(own.receiveShort(), static_cast<short>(i));
    }
    EXPECT_EQ(failureOf([&] { own.receiveShort(); }), failure(readFailed, 0));
    own.transfer(5);
    EXPECT_EQ(own.receiveInt(), 5);
}

TEST_F(VornBufferConnectionTest, NothingIsLogged) {
    const LogCapture log(9);
    buffer.transfer(7);
    EXPECT_EQ(buffer.receiveInt(), 7);
    EXPECT_EQ(failureOf([&] { buffer.receiveInt(); }), failure(readFailed, 0));
    EXPECT_EQ(rawWrite(buffer, "abc"), raw(3, 0));
    peek(buffer, 10);
    buffer.disconnect();
    EXPECT_THAT(log.records(), IsEmpty());
}
