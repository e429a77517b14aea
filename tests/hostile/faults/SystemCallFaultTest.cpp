// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Every system call of every scenario fails once, and from then on always, with each error number that the
// libraries tell apart and some that they do not. What comes of it is compared with what is promised,
// descriptors and heap with what they were before.

#include "AllocationFaults.h"
#include "Await.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Scenarios.h"

#include <VornException.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <utility>

#include <netdb.h>

using namespace VornTest;

namespace {

bool isLookUp(const std::string& function) {
    return function.ends_with("_r");
}

/**
 * The error numbers with which a function fails. EMSGSIZE is left out: with it recv() by contract reads one
 * byte before the buffer, which has a test of its own.
 */
const std::vector<int>& errorsOf(const std::string& function) {
    static const std::vector<int> ofLookUps = {HOST_NOT_FOUND, NO_DATA, NO_RECOVERY, TRY_AGAIN, ERANGE};
    static const std::vector<int> ofOthers = {
        EACCES, EADDRINUSE, EADDRNOTAVAIL, EAGAIN, EBADF,    ECONNRESET, EHOSTDOWN, EINTR,
        EINVAL, EMFILE,     ENOMEM,        ENONET, ENOTCONN, ENOTSOCK,   EPIPE,     ETIMEDOUT};
    return isLookUp(function) ? ofLookUps : ofOthers;
}

/** A stage on which a system call fails. */
class FaultyStage {
public:
    FaultyStage(const Scenario& scenario, const CallFault& fault, const Promise& promise)
        : m_scenario(scenario), m_fault(fault), m_promise(promise) {}

    Outcome operator()(const std::function<std::string()>& action) {
        m_rule.emplace(m_fault.function, m_fault.error, m_fault.nth,
                       m_fault.isLasting ? FaultRule::always : 1, currentTid());
        if (isLookUp(m_fault.function))
            m_rule->returning(m_fault.error);
        const Outcome outcome = m_promise.isEndless ? runWithInterruption(action) : outcomeOf(action);
        lift();
        return outcome;
    }

    int failures() {
        const std::lock_guard lock(m_lock);
        return m_rule ? m_rule->failures() : m_failures;
    }

private:
    /** How often a call fails before what goes on with it is ended. */
    static constexpr int cEnough = 3;

    void lift() {
        const std::lock_guard lock(m_lock);
        if (m_rule)
            m_failures = m_rule->failures();
        m_rule.reset();
    }

    Outcome runWithInterruption(const std::function<std::string()>& action) {
        std::atomic<bool> ended = false;
        WatchedThread interrupter([&] {
            while (!ended) {
                if (failures() > cEnough)
                    m_scenario.interrupt != nullptr ? m_scenario.interrupt() : lift();
                std::this_thread::yield();
            }
        });
        const Outcome outcome = outcomeOf(action);
        ended = true;
        interrupter.join();
        return outcome;
    }

    const Scenario& m_scenario;
    const CallFault& m_fault;
    const Promise& m_promise;
    std::mutex m_lock;
    std::optional<FaultRule> m_rule;
    int m_failures = 0;
};

std::string describe(const Scenario& scenario, const CallFault& fault) {
    return scenario.name + ": " + fault.function + " number " + std::to_string(fault.nth) + " fails with " +
           std::to_string(fault.error) + (fault.isLasting ? " from then on" : " once");
}

class SystemCallFaults : public LeakCheckedTest, public testing::WithParamInterface<std::size_t> {
protected:
    void SetUp() override {
        // The first exception of a process makes the C library load what it takes call stacks with, and that
        // stays.
        outcomeOf([]() -> std::string { throw VornSupport::VornException("first", 0); });
    }

    void failEachCallOf(const Scenario& scenario, const FailingCall& call) {
        // What is made once for the whole process must not be taken for a leak.
        for (const bool isLasting : {false, true})
            provoke(scenario, call, {call.function, errorsOf(call.function).front(), 1, isLasting}, false);
        int sites = 0;
        for (const int error : errorsOf(call.function)) {
            for (const bool isLasting : {false, true}) {
                CallFault fault = {call.function, error, 1, isLasting};
                while (!HasFailure() && provoke(scenario, call, fault, true))
                    sites = std::max(sites, fault.nth++);
            }
        }
        EXPECT_GT(sites, 0) << call.function << " was never called";
    }

    /** @return whether the call was reached at all */
    bool provoke(const Scenario& scenario, const FailingCall& call, const CallFault& fault,
                 bool isHeapCompared) {
        const int descriptors = openDescriptors();
        const long blocks = liveAllocations();
        const auto [failures, leaked] = expectPromise(scenario, call, fault);
        EXPECT_TRUE(awaitCondition([after = descriptors + leaked] { return openDescriptors() == after; }))
            << describe(scenario, fault) << ": " << descriptors << " descriptors before, "
            << openDescriptors() << " after";
        m_leaked += leaked;
        long blocksNow = 0;
        EXPECT_TRUE(!isHeapCompared || awaitCondition([&] {
            blocksNow = liveAllocations();
            return blocksNow == blocks;
        })) << describe(scenario, fault)
            << ": " << blocks << " blocks before, " << blocksNow << " after";
        return failures > 0;
    }

    /** @return how many calls have failed, and how many descriptors stay open by contract */
    static std::pair<int, int> expectPromise(const Scenario& scenario, const FailingCall& call,
                                             const CallFault& fault) {
        // A look-up that lacks room is made again with more, but not forever.
        const bool isLackOfRoom = isLookUp(fault.function) && fault.error == ERANGE && !fault.isLasting;
        const Promise promise = isLackOfRoom ? Promise{scenario.undisturbed} : call.rule(fault);
        FaultyStage stage(scenario, fault, promise);
        const Outcome outcome = scenario.run(std::ref(stage));
        EXPECT_EQ(stage.failures() > 0 ? promise.outcome : scenario.undisturbed, outcome)
            << describe(scenario, fault);
        return {stage.failures(), stage.failures() * promise.leaked};
    }

    int m_leaked = 0;
};

TEST_P(SystemCallFaults, LeadToWhatIsPromisedAndLeaveNothingBehind) {
    const Scenario scenario = allScenarios()[GetParam()];
    ASSERT_EQ(scenario.undisturbed, scenario.run(outcomeOf));
    for (const FailingCall& call : scenario.calls) {
        failEachCallOf(scenario, call);
        ASSERT_FALSE(HasFailure());
        ASSERT_EQ(scenario.undisturbed, scenario.run(outcomeOf)) << "after failures of " << call.function;
    }
    expectDescriptorLeak(m_leaked);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, SystemCallFaults, testing::Range<std::size_t>(0, allScenarios().size()),
                         [](const auto& test) {
                             std::string name = allScenarios()[test.param].name;
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

/** The functions of the C library that the libraries call through their one header for it. */
std::set<std::string> calledFunctions() {
    std::ifstream header(VORNTEST_SYSTEM_CALLS_FILE);
    const std::regex call("return ::(\\w+)\\(");
    std::set<std::string> functions;
    for (std::string line; std::getline(header, line);) {
        std::smatch match;
        if (std::regex_search(line, match, call))
            functions.insert(match[1]);
    }
    return functions;
}

TEST(SystemCallScenarios, LetEveryFunctionFailThatTheLibrariesCallAndThatCanFail) {
    // The first five cannot fail; the sleeps fail for a signal only, which has a test of its own. The
    // handlers of a fork are registered once, when the library is loaded: without memory then, forks go
    // without them.
    std::set<std::string> covered = {
        "getuid",          "getpid", "gettid",        "clock_gettime", "pthread_setcancelstate",
        "clock_nanosleep", "usleep", "pthread_atfork"};
    for (const Scenario& scenario : allScenarios()) {
        for (const FailingCall& call : scenario.calls)
            covered.insert(call.function);
    }
    // Only notify/ calls these; the suite VornSteadySink_Failures lets each of them fail but the last two,
    // whose failures nobody notices.
    covered.insert({"accept4", "epoll_create1", "epoll_ctl", "epoll_wait", "getrandom", "ioctl", "lstat",
                    "ppoll", "recvmsg", "renameat2", "getrlimit", "prctl"});
    // And these only the publisher and the subscriber, whose suites let those fail that can.
    covered.insert({"flock", "fstat", "ftruncate", "getpeername", "mmap", "msync", "munmap", "open",
                    "posix_fallocate", "pread", "pwrite", "sched_yield", "timerfd_create",
                    "timerfd_settime"});
    EXPECT_EQ(calledFunctions(), covered);
}

} // namespace
