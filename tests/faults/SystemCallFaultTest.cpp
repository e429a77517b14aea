// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Every system call of every scenario fails once, and from then on always, with each error number that its
// manual page lists. What comes of it is compared with what is promised, and afterwards the scenario must
// succeed again.

#include "Await.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Scenarios.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <set>

using namespace VornTest;

namespace {

struct Fault {
    const Scenario& scenario;
    const Expectation& expectation;
    int error;
    int nth;
    bool isLasting;
};

/// A wait that goes on after a failure, and then succeeds unless the failure lasts.
bool isRetried(const Fault& fault) {
    static const std::set<int> quietAccept = {EINTR, EBADF, ENONET, ENOTSOCK, EHOSTDOWN};
    static const std::set<int> quietReceive = {EINTR, EBADF, ENONET, ENOTSOCK, ECONNRESET, EHOSTDOWN};
    if (fault.expectation.text != "no client" || fault.isLasting)
        return false;
    const auto& quiet = fault.expectation.function == "accept" ? quietAccept : quietReceive;
    return quiet.count(fault.error) == 0;
}

Outcome expectedOf(const Fault& fault) {
    const bool isHealed = fault.expectation.isHealed && !fault.isLasting;
    const bool isUnnoticed = fault.expectation.isFirstOnly && fault.nth > 1;
    if (isRetried(fault) || isHealed || isUnnoticed)
        return fault.scenario.undisturbed;
    const int code = fault.expectation.code;
    return {fault.expectation.text, code == Expectation::sameErrno ? fault.error : code};
}

/// A stage on which a system call fails.
class FaultyStage {
public:
    explicit FaultyStage(const Fault& fault) : m_fault(fault) {}

    Outcome operator()(const std::function<std::string()>& action) {
        const FaultRule rule(m_fault.expectation.function, m_fault.error, m_fault.nth,
                             m_fault.isLasting ? FaultRule::always : 1, currentTid());
        const Outcome outcome = runWithInterruption(action, rule);
        m_failures = rule.failures();
        return outcome;
    }

    int failures() const { return m_failures; }

private:
    /// A wait that fails again and again is ended by another thread.
    Outcome runWithInterruption(const std::function<std::string()>& action, const FaultRule& rule) const {
        if (m_fault.scenario.interrupt == nullptr || !m_fault.isLasting)
            return outcomeOf(action);
        std::atomic<bool> ended = false;
        WatchedThread interrupter([&] {
            while (!ended) {
                if (rule.failures() > 3)
                    m_fault.scenario.interrupt();
                std::this_thread::yield();
            }
        });
        const Outcome outcome = outcomeOf(action);
        ended = true;
        interrupter.join();
        return outcome;
    }

    const Fault& m_fault;
    int m_failures = 0;
};

class SystemCallFaults : public LeakCheckedTest, public testing::WithParamInterface<std::size_t> {
protected:
    void SetUp() override {
        LeakCheckedTest::SetUp();
        useInterposition();
    }

    /// @return whether the call was reached at all
    bool provoke(const Fault& fault) {
        const int before = openDescriptors();
        FaultyStage stage(fault);
        const Outcome outcome = fault.scenario.run(std::ref(stage));
        const int failures = stage.failures();
        EXPECT_EQ(failures > 0 ? expectedOf(fault) : fault.scenario.undisturbed, outcome) << describe(fault);
        const int leaked = failures > 0 ? fault.expectation.leaked : 0;
        EXPECT_TRUE(awaitCondition([=] { return openDescriptors() == before + leaked; }))
            << describe(fault) << ": " << before << " descriptors before, " << openDescriptors() << " after";
        m_leaked += leaked;
        return failures > 0;
    }

    static std::string describe(const Fault& fault) {
        return fault.scenario.name + ": " + fault.expectation.function + " number " +
               std::to_string(fault.nth) + " fails with " + std::to_string(fault.error) +
               (fault.isLasting ? " from then on" : " once");
    }

    int m_triples = 0;
    int m_leaked = 0;
};

TEST_P(SystemCallFaults, LeadToWhatIsPromisedAndLeaveNothingBehind) {
    const Scenario scenario = allScenarios()[GetParam()];
    ASSERT_EQ(scenario.undisturbed, scenario.run(outcomeOf));
    for (const Expectation& expectation : scenario.expectations) {
        for (const int error : errorsOf(expectation.function)) {
            for (const bool isLasting : {false, true}) {
                int nth = 1;
                while (provoke({scenario, expectation, error, nth, isLasting}) && !HasFailure())
                    ++nth;
                m_triples += nth - 1;
                EXPECT_GT(nth, 1) << expectation.function << " was never called";
            }
        }
        if (HasFailure())
            return;
    }
    std::printf("%s: %d failures provoked\n", scenario.name.c_str(), m_triples);
    expectDescriptorLeak(m_leaked);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, SystemCallFaults, testing::Range<std::size_t>(0, allScenarios().size()),
                         [](const auto& scenario) {
                             std::string name = allScenarios()[scenario.param].name;
                             for (char& character : name)
                                 character = character == ' ' ? '_' : character;
                             return name;
                         });

} // namespace
