// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Every allocation of every public operation fails, once, and from then on always: operator new, malloc(),
// calloc() and realloc(). Each failure happens in a process of its own, because the end of the process is one
// of the promised outcomes.

#include "Await.h"
#include "LeakCheckedTest.h"
#include "Operations.h"
#include "Posix.h"
#include "Sandbox.h"

#include <VornException.h>
#include <VornLogging.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace VornTest;

namespace {

/** What a child process tells of its run. */
struct Report {
    Ending ending;
    int allocations;
    long blocks;     ///< more than before
    int descriptors; ///< more than before
    bool mayLeaveDescriptor;
    char note[200];
};

bool g_isLogging = false;

/** Has every record written, to nowhere, if that is the circumstance; rows may have changed it. */
void setLogging() {
    using VornSupport::VornLogging;
    if (g_isLogging)
        VornLogging::setRecordHandler([](int, const VornSupport::VornString&) {});
    else
        VornLogging::setRecordHandler({});
    VornLogging::getInstance().setLogLevel(g_isLogging ? VornLogging::cDebug : VornLogging::cOff);
}

/** Runs one row in this process. */
void runRow(const Operation& row, int nth, AllocationFault::Mode mode, Report& report) {
    setLogging();
    const int descriptors = openDescriptors();
    const long blocks = liveAllocations();
    Trial trial(nth, mode);
    try {
        row.run(trial);
    } catch (const std::exception&) {
        trial.expect(false, "what comes before or afterwards fails");
    } catch (const VornSupport::VornException&) {
        trial.expect(false, "what comes before or afterwards fails");
    }
    setLogging();
    // A thread that has been joined may take a moment to be gone.
    awaitCondition([&] { return liveAllocations() == blocks; }, std::chrono::milliseconds(500));
    report.blocks = liveAllocations() - blocks;
    report.descriptors = openDescriptors() - descriptors;
    report.mayLeaveDescriptor = trial.mayLeaveDescriptor();
    report.allocations = trial.allocations();
    report.ending = trial.ending();
    std::snprintf(report.note, sizeof report.note, "%s", trial.note() == nullptr ? "" : trial.note());
}

/** Whether a process has nothing else to do than to look again and again whether something has happened. */
bool isWaitingForEver(pid_t process) {
    int looks = 0;
    return awaitCondition(
        [&] {
            std::string call;
            try {
                call = readTextFile("/proc/" + std::to_string(process) + "/syscall");
            } catch (const std::system_error&) {
                return false; // it is just ending
            }
            looks = std::atoi(call.c_str()) == SYS_clock_nanosleep ? looks + 1 : 0;
            return looks > 10;
        },
        std::chrono::milliseconds(100));
}

/** Waits for a child. @return how it ended; of an ordinary end the report tells */
Ending endOf(pid_t child, bool mayWaitForEver) {
    int status = 0;
    bool hasEnded = false;
    const auto isOver = [&] { return hasEnded = ::waitpid(child, &status, WNOHANG) == child; };
    bool isStuck = false;
    for (int i = 0; i < 1000 && !awaitCondition(isOver, std::chrono::milliseconds(30)) && !isStuck; ++i)
        isStuck = mayWaitForEver && isWaitingForEver(child);
    if (!hasEnded) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        return isStuck ? neverReturns : throwsSomethingElse;
    }
    if (WIFSIGNALED(status))
        return WTERMSIG(status) == SIGABRT ? endsProcess : throwsSomethingElse;
    return doesWithout;
}

Ending provoke(const Operation& row, int nth, AllocationFault::Mode mode, Report& report) {
    report = {};
    const pid_t child = ::fork();
    if (child == 0) {
        std::freopen("/dev/null", "w", stderr); // the message of a promised end is no news
        ::alarm(60);
        runRow(row, nth, mode, report);
        ::_exit(0);
    }
    const Ending ending = endOf(child, (row.allowed & neverReturns) != 0);
    if (ending == doesWithout)
        return report.ending;
    report.allocations = nth; // it came so far
    return ending;
}

const char* nameOf(Ending ending) {
    static const std::map<Ending, const char*> names = {{throwsBadAlloc, "std::bad_alloc"},
                                                        {throwsVornException, "VornException"},
                                                        {doesWithout, "an ordinary end"},
                                                        {endsProcess, "the end of the process"},
                                                        {neverReturns, "no return"}};
    return names.count(ending) == 1 ? names.at(ending) : "another exception, a crash or a hang";
}

const Operations& allOperations() {
    static const Operations all = [] {
        Operations table;
        for (const auto add : {addTexts, addSupport, addConnections, addTransports, addServers,
                               addNotifications, addSinks, addSteadySinks, addSubscriptions})
            add(table);
        return table;
    }();
    return all;
}

class AllocationFaults : public LeakCheckedTest {
protected:
    void SetUp() override {
        useHostsFile(hostsFile());
        // The first exception of a process makes the C library load what it takes call stacks with, and that
        // stays.
        VornSupport::VornException("first", 0);
    }

    void TearDown() override {
        ::unsetenv("QUORAX_CALLB_CONN_TYPE");
        g_isLogging = false;
        setLogging();
        ::munmap(m_report, sizeof(Report));
    }

    /** @param alsoAllowed what every operation may do besides */
    void failEachAllocation(unsigned alsoAllowed) {
        for (const Operation& row : allOperations().rows())
            failEachAllocationOf(row, alsoAllowed);
    }

    void failEachAllocationOf(const Operation& row, unsigned alsoAllowed) {
        // Undisturbed first: what is made once for the whole process must not be taken for a leak.
        runRow(row, 0, AllocationFault::Mode::once, *m_report);
        runRow(row, 0, AllocationFault::Mode::once, *m_report);
        EXPECT_EQ(0, m_report->blocks) << row.title << " leaks without any failure";
        EXPECT_STREQ("", m_report->note) << row.title << " without any failure";
        const int allocations = m_report->allocations;
        if (row.allowed == allocatesNothing && alsoAllowed == 0) {
            EXPECT_EQ(0, allocations) << row.title;
        }
        const int before = failedParts();
        for (const auto mode : {AllocationFault::Mode::once, AllocationFault::Mode::fromThenOn}) {
            for (int nth = 1; nth <= allocations && failedParts() == before; ++nth)
                failAllocation(row, nth, mode, row.allowed | alsoAllowed);
        }
    }

    void failAllocation(const Operation& row, int nth, AllocationFault::Mode mode, unsigned allowed) {
        const Ending ending = provoke(row, nth, mode, *m_report);
        if (m_report->allocations < nth)
            return; // another thread was faster this time
        const std::string what = row.title + ": allocation " + std::to_string(nth) + " fails " +
                                 (mode == AllocationFault::Mode::once ? "once" : "with all later ones");
        EXPECT_TRUE((ending & allowed) != 0) << what << ", and there is " << nameOf(ending);
        EXPECT_EQ(0, m_report->blocks) << what << ", and memory is lost";
        EXPECT_LE(m_report->descriptors, m_report->mayLeaveDescriptor ? 1 : 0) << what;
        EXPECT_STREQ("", m_report->note) << what;
    }

    static int failedParts() {
        return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
    }

    /** In memory that the children share. */
    Report* const m_report = static_cast<Report*>(
        ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
};

TEST_F(AllocationFaults, LeadToWhatEachOperationPromisesAndNeverToALeakOrAHalfChangedObject) {
    failEachAllocation(0);
}

TEST_F(AllocationFaults, LeadToTheSameWhileEveryLogRecordIsWritten) {
    g_isLogging = true;
    failEachAllocation(doesWithout); // a record for which there is no memory is dropped
}

/** What the tables of the binary interface list. */
std::set<std::string> tabledOperations() {
    return {
#define CLASS(class_, size_) #class_ "::~" #class_,
#define PLAIN(class_, size_)
#define BASE(class_, base_, offset_)
#define CONSTRUCTOR(class_, arguments_) #class_ "::" #class_,
#define DESTRUCTOR(class_) #class_ "::~" #class_,
#define METHOD(class_, returns_, operation_, arguments_) #class_ "::" #operation_,
#define STATIC METHOD
#define SLOT(class_, slot_, returns_, operation_, arguments_) #class_ "::" #operation_,
#define PURE(class_, slot_, returns_, operation_, arguments_)
#define INLINE PURE
#define FREE(returns_, function_, arguments_) #function_,
#define VARIABLE(class_, type_, variable_)
#include "Classes.inc"
#include "Functions.inc"
#include "VirtualSlots.inc"
    };
}

/** What a row does, each with its class. */
std::set<std::string> namesOf(const Operation& row) {
    std::set<std::string> names;
    std::string ofClass;
    std::string rest = row.title.substr(0, row.title.find(" (")) + ", ";
    for (std::size_t end; (end = rest.find(", ")) != std::string::npos; rest.erase(0, end + 2)) {
        const std::string name = rest.substr(0, end);
        if (const std::size_t colons = name.find("::"); colons != std::string::npos)
            ofClass = name.substr(0, colons + 2);
        names.insert(name.find("::") != std::string::npos ? name : ofClass + name);
    }
    return names;
}

TEST(AllocationFaultTable, NamesEveryOperationThatTheLibrariesExport) {
    std::set<std::string> named;
    for (const Operation& row : allOperations().rows())
        named.merge(namesOf(row));
    for (const std::string& operation : tabledOperations()) {
        // A dispatcher works on threads of its own; VornDispatcher_Memory fails its allocations on each.
        const bool isOfDispatcher = operation.rfind("VornDispatcher::", 0) == 0;
        EXPECT_EQ(named.count(operation), isOfDispatcher ? 0U : 1U) << operation;
    }
}

} // namespace
