// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DispatcherTestSupport.h"
#include "Process.h"

#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>
#include <VornSteadySink.h>

#include <iostream>
#include <memory>
#include <optional>
#include <sstream>

using namespace std::chrono_literals;
using namespace VornTest;
using VornNet::VornCallbackContainer;
using VornNet::VornLibraryCallbackSink;
using VornNet::VornSmartPointer;
using VornNet::VornSteadySink;

namespace {

/** What a client's callbacks do, by their ids; each notification is a number and a text. */
enum Habit : int { readsAll, readsNothing, leavesBytes, throwsAtOnce, throwsAfterReading, cHabits };

/** Counts its calls, and remembers the numbers that it has read. */
class CountingCallback : public VornNet::VornNotificationCallback {
public:
    explicit CountingCallback(int nHabit) : VornNotificationCallback(nHabit), m_nHabit(nHabit) {}

    std::string report() const {
        std::ostringstream text;
        text << m_nCalls;
        for (const int number : m_numbers)
            text << " " << number;
        return text.str();
    }

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        ++m_nCalls;
        if (m_nHabit == throwsAtOnce)
            throw VornException("at once", 0);
        if (m_nHabit == readsNothing)
            return;
        m_numbers.push_back(spConnection->receiveInt());
        if (m_nHabit == leavesBytes)
            return;
        spConnection->receiveString();
        if (m_nHabit == throwsAfterReading)
            throw VornException("after reading", 0);
    }

private:
    const int m_nHabit;
    int m_nCalls = 0;
    std::vector<int> m_numbers;
};

using CallbackPointer = VornSmartPointer<CountingCallback>;

std::vector<CallbackPointer> addCallbacks(VornCallbackContainer& container) {
    std::vector<CallbackPointer> callbacks;
    for (int nHabit = 0; nHabit < cHabits; ++nHabit) {
        auto* callback = new CountingCallback(nHabit);
        callbacks.emplace_back(callback);
        container.add(callback);
    }
    return callbacks;
}

} // namespace

/** A client: "plain" or "steady". It tells its address, and after a line of input what its callbacks saw. */
KIT_ROLE(client) {
    std::unique_ptr<VornLibraryCallbackSink> spPlain;
    std::unique_ptr<VornSteadySink> spSteady;
    if (args.at(0) == "plain")
        spPlain = std::make_unique<VornLibraryCallbackSink>("client");
    else
        spSteady = std::make_unique<VornSteadySink>("client");
    const auto callbacks =
        addCallbacks(spPlain ? spPlain->getCallbackContainer() : spSteady->getCallbackContainer());
    std::cout << (spPlain ? spPlain->getCallbackAddress() : spSteady->getCallbackAddress()) << std::endl;
    std::string line;
    std::getline(std::cin, line);
    spPlain.reset();
    spSteady.reset();
    for (const CallbackPointer& spCallback : callbacks)
        std::cout << spCallback->report() << std::endl;
    return 0;
}

namespace {

struct Pairing {
    std::string kind; ///< "pipe" or "socket"
    std::string sink; ///< "plain" or "steady"

    bool isSteady() const { return sink == "steady"; }
};

void PrintTo(const Pairing& pairing, std::ostream* out) {
    *out << pairing.kind << "_" << pairing.sink;
}

/** A client in a process of its own, and how often each of its callbacks is called. */
class VornDispatcher_Sink : public DispatcherTest, public testing::WithParamInterface<Pairing> {
protected:
    static constexpr int cCount = 60;

    void SetUp() override {
        DispatcherTest::SetUp();
        m_client.emplace(ChildProcess::spawnRoleWith({"QUORAX_CALLB_CONN_TYPE=" + GetParam().kind}, "client",
                                                     {GetParam().sink}));
        m_sAddress = m_client->readLine();
    }

    void TearDown() override {
        m_client.reset();
        DispatcherTest::TearDown();
    }

    /** Posts a burst for the callback. @return the results */
    std::vector<Result> burst(int nHabit, unsigned int nDoubtfulTries) {
        VornDispatcher::Options options = optionsWithResults();
        options.terms.nDoubtfulTries = nDoubtfulTries;
        VornDispatcher dispatcher(options);
        for (int i = 0; i < cCount; ++i) {
            std::string sContent = bytes("00 00 00 00 00 00 00 04") + "text";
            sContent[3] = static_cast<char>(i);
            post(dispatcher, m_sAddress, sContent, nHabit);
        }
        EXPECT_TRUE(dispatcher.flush(30s));
        return m_results.now();
    }

    /** @return how often the callback was called; @p numbers receives what it has read. */
    int calls(int nHabit, std::vector<int>& numbers) {
        m_client->writeLine("report");
        std::string line;
        for (int i = 0; i <= nHabit; ++i)
            line = m_client->readLine();
        std::istringstream text(line);
        int nCalls = -1;
        text >> nCalls;
        for (int number = 0; text >> number;)
            numbers.push_back(number);
        return nCalls;
    }

    static std::vector<int> inOrder(int nCount = cCount) {
        std::vector<int> numbers;
        for (int i = 0; i < nCount; ++i)
            numbers.push_back(i);
        return numbers;
    }

    /** @return how many had their outcome before a sink that may do so moved to another port. */
    static int expectAll(const std::vector<Result>& results, Outcome outcome) {
        EXPECT_EQ(results.size(), static_cast<std::size_t>(cCount));
        int nBefore = 0;
        for (const Result& result : results) {
            const bool bHasMoved =
                isPlainTcp() && result.outcome == Outcome::expired && result.nCode == ECONNREFUSED;
            EXPECT_TRUE(bHasMoved || result.outcome == outcome)
                << result.nTicket << " " << VornDispatcher::nameOf(result.outcome) << " " << result.nCode;
            nBefore += !bHasMoved;
        }
        return nBefore;
    }

    static bool isPlainTcp() { return GetParam().kind == "socket" && !GetParam().isSteady(); }

    std::optional<ChildProcess> m_client;
    std::string m_sAddress;
};

} // namespace

TEST_P(VornDispatcher_Sink, ABurstArrivesOnceAndInOrder) {
    const int nDelivered = expectAll(burst(readsAll, 64), Outcome::delivered);
    std::vector<int> numbers;
    EXPECT_EQ(calls(readsAll, numbers), nDelivered);
    EXPECT_EQ(numbers, inOrder(nDelivered));
}

TEST_P(VornDispatcher_Sink, ACallbackThatReadsNothingIsCalledOnce) {
    const unsigned int nTries = isPlainTcp() ? 3 : 64;
    const std::vector<Result> results = burst(readsNothing, nTries);
    expectAll(results, GetParam().isSteady() ? Outcome::delivered : Outcome::unread);
    std::vector<int> numbers;
    const int nCalls = calls(readsNothing, numbers);
    if (isPlainTcp())
        EXPECT_LE(nCalls, 3 * cCount) << "as often as the terms allow";
    else
        EXPECT_EQ(nCalls, cCount);
}

TEST_P(VornDispatcher_Sink, ACallbackThatLeavesBytesIsCalledOnceWhenTheTermsSaySo) {
    expectAll(burst(leavesBytes, 1), GetParam().isSteady() ? Outcome::delivered : Outcome::unread);
    std::vector<int> numbers;
    const int nCalls = calls(leavesBytes, numbers);
    if (isPlainTcp())
        EXPECT_LE(nCalls, cCount);
    else
        EXPECT_EQ(numbers, inOrder());
}

TEST_P(VornDispatcher_Sink, ACallbackThatThrowsAtOnceIsCalledOnceWhenTheTermsSaySo) {
    expectAll(burst(throwsAtOnce, 1), GetParam().isSteady() ? Outcome::delivered : Outcome::unread);
    std::vector<int> numbers;
    const int nCalls = calls(throwsAtOnce, numbers);
    if (isPlainTcp())
        EXPECT_LE(nCalls, cCount);
    else
        EXPECT_EQ(nCalls, cCount);
}

TEST_P(VornDispatcher_Sink, ACallbackThatThrowsAfterReadingHasItDelivered) {
    const int nDelivered = expectAll(burst(throwsAfterReading, 64), Outcome::delivered);
    std::vector<int> numbers;
    EXPECT_EQ(calls(throwsAfterReading, numbers), nDelivered);
    EXPECT_EQ(numbers, inOrder(nDelivered));
}

TEST_P(VornDispatcher_Sink, AnUnknownIdIsUnread) {
    expectAll(burst(cHabits, 1), Outcome::unread);
}

INSTANTIATE_TEST_SUITE_P(Pairings, VornDispatcher_Sink,
                         testing::Values(Pairing{"pipe", "plain"}, Pairing{"pipe", "steady"},
                                         Pairing{"socket", "plain"}, Pairing{"socket", "steady"}),
                         testing::PrintToStringParamName());
