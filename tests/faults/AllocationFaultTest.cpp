// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Every allocation of every scenario fails once: operator new, malloc() and realloc(). Each failure happens
// in a process of its own, because the end of the process is one of the promised outcomes.

#include "AllocationFaults.h"
#include "Scenarios.h"

#include <VornException.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace VornTest;

namespace {

enum Ending { succeeded = 40, threwVornException, threwBadAlloc, leaked, notReached, endedUnexpectedly };

Ending endingOf(const std::function<std::string()>& action) {
    try {
        action();
        return succeeded;
    } catch (const VornSupport::VornException& e) {
        return e.getUText().empty() ? endedUnexpectedly : threwVornException;
    } catch (const std::bad_alloc&) {
        return threwBadAlloc;
    }
}

/// Runs the scenario's own part with the n-th allocation failing, and tells how it ended.
Ending provoke(const Scenario& scenario, int nth) {
    // The first exception of a process makes the C library load what it takes call stacks with, and that
    // stays.
    VornSupport::VornException("first", 0);
    Ending ending = endedUnexpectedly;
    scenario.run([&](const std::function<std::string()>& action) {
        const long before = liveAllocations();
        const AllocationFault fault(nth);
        ending = endingOf(action);
        if (!fault.happened())
            ending = notReached;
        else if (liveAllocations() != before)
            ending = leaked;
        return Outcome{};
    });
    return ending;
}

/// @return an Ending, or the negative number of the signal that ended the process
int endingInProcess(const Scenario& scenario, int nth) {
    const pid_t child = ::fork();
    if (child == 0) {
        std::freopen("/dev/null", "w", stderr); // the message of a promised abort is no news
        ::alarm(30);
        ::_exit(provoke(scenario, nth));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(AllocationFaults, LeadToAnExceptionOrThePromisedEndAndNeverToALeak) {
    int provoked = 0;
    for (const Scenario& scenario : allScenarios()) {
        int nth = 1;
        for (int ending = 0; nth < 200; ++nth) {
            ending = endingInProcess(scenario, nth);
            if (ending == notReached)
                break;
            // An exception other than VornException that reaches a typed operation or a wait ends the
            // process.
            EXPECT_TRUE(ending == succeeded || ending == threwVornException || ending == threwBadAlloc ||
                        ending == -SIGABRT)
                << scenario.name << ", allocation number " << nth << ": ending " << ending;
        }
        EXPECT_GT(nth, 1) << scenario.name << " allocates nothing";
        EXPECT_LT(nth, 200) << scenario.name;
        std::printf("%s: %d allocations failed\n", scenario.name.c_str(), nth - 1);
        provoked += nth - 1;
    }
    EXPECT_GT(provoked, 0);
}

} // namespace
