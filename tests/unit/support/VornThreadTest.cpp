// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Checkpoint.h"
#include "Failure.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Posix.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include <VornEvent.h>
#include <VornException.h>
#include <VornSmartPointer.h>
#include <VornThread.h>
#include <VornWorkInformation.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

using namespace VornTest;
using namespace std::chrono_literals;
using namespace VornSupport;
using Clock = std::chrono::steady_clock;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/** A thread which runs a function of the test, and ends before the function's variables do. */
class Worker : public VornThread {
public:
    Worker(const VornString& name, std::function<int(Worker&)> work)
        : VornThread(name), m_work(std::move(work)) {}

    explicit Worker(std::function<int(Worker&)> work) : Worker("worker", std::move(work)) {}

    ~Worker() override {
        stop();
        if (!isOwnThread())
            wait(-1);
    }

    using VornThread::isOwnThread;
    using VornThread::isStopRequested;
    using VornThread::run;

    int run() override { return m_work(*this); }

private:
    std::function<int(Worker&)> m_work;
};

constexpr int cLimit = static_cast<int>(defaultLimit.count());

/** Work that can hold up whoever takes a reference to it, or lets go of one. */
class WatchedWork : public VornWorkInformation {
public:
    void addRef() override {
        if (m_holdsAdding)
            m_holding.pass();
        VornWorkInformation::addRef();
    }

    void release() override {
        if (m_holdsReleasing)
            m_holding.pass();
        VornWorkInformation::release();
    }

    std::atomic<bool> m_holdsAdding{false};
    std::atomic<bool> m_holdsReleasing{false};
    Checkpoint m_holding;
};

/** A thread that is held up before it takes its work. */
class StartingThread : public VornThread {
public:
    StartingThread() : VornThread("starting") {}

    ~StartingThread() override {
        m_starting.open();
        wait(-1);
    }

    int run() override {
        m_starting.pass();
        m_tid = currentTid();
        return m_takesWork ? VornThread::run() : 0;
    }

    int run(VornWorkInformation&) override {
        m_worked = true;
        return 0;
    }

    using VornThread::isOwnThread;
    using VornThread::isStopRequested;

    Checkpoint m_starting;
    std::atomic<bool> m_takesWork{true};
    std::atomic<pid_t> m_tid{0};
    std::atomic<bool> m_worked{false};
};

std::string systemName(pid_t tid) {
    return readTextFile("/proc/self/task/" + std::to_string(tid) + "/comm");
}

/** The system's name of a thread called @p name. */
std::string systemNameOf(const std::string& name) {
    std::string result;
    Worker worker(name, [&](Worker&) {
        result = systemName(currentTid());
        return 0;
    });
    worker.start();
    worker.wait(-1);
    return result;
}

class VornThreadTest : public LeakCheckedTest {};

/** A thread that is held up before it takes its work. */
class VornThread_Work : public VornThreadTest {
protected:
    void SetUp() override {
        VornThreadTest::SetUp();
        m_thread.setWorkInfo(static_cast<WatchedWork*>(m_work));
        m_thread.start();
        ASSERT_TRUE(m_thread.m_starting.awaitReached());
    }

    /** Lets it go on, and waits until it waits for the lock. */
    void expectToWait() {
        m_thread.m_starting.open();
        EXPECT_TRUE(awaitCondition([this] { return m_thread.m_tid != 0; }));
        EXPECT_TRUE(awaitBlockedOnLock(m_thread.m_tid));
    }

    void TearDown() override {
        EXPECT_EQ(m_thread.wait(cLimit), true);
        VornThreadTest::TearDown();
    }

    const VornSmartPointer<WatchedWork> m_work{new WatchedWork};
    StartingThread m_thread;
};

} // namespace

TEST_F(VornThreadTest, WhenConstructed_HasNoThreadAndHasEnded) {
    const std::size_t before = threadIds().size();
    bool ran = false;
    Worker worker([&](Worker&) {
        ran = true;
        return 0;
    });
    EXPECT_EQ(threadIds().size(), before);
    EXPECT_EQ(worker.wait(0), true);
    EXPECT_EQ(worker.wait(-1), true);
    EXPECT_EQ(ran, false);
}

TEST_F(VornThreadTest, WhileRunning_WaitRunsOutOfTimeOrEndsWithTheThread) {
    Checkpoint gate;
    Worker worker([&](Worker&) {
        gate.pass();
        return 0;
    });
    worker.start();
    EXPECT_EQ(worker.wait(0), false);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(worker.wait(30), false);
    EXPECT_GE(Clock::now() - start, 30ms);
    bool result = false;
    WatchedThread waiter([&] { result = worker.wait(-1); });
    EXPECT_TRUE(awaitBlockedOnLock(waiter.tid()));
    EXPECT_FALSE(waiter.finished());
    gate.open();
    EXPECT_EQ(worker.wait(cLimit), true);
    EXPECT_EQ(worker.wait(0), true);
    EXPECT_TRUE(waiter.join());
    EXPECT_EQ(result, true);
}

TEST_F(VornThreadTest, StartWhileRunning_DoesNothing) {
    Checkpoint gate;
    std::atomic<int> runs{0};
    Worker worker([&](Worker&) {
        ++runs;
        gate.pass();
        return 0;
    });
    worker.start();
    EXPECT_TRUE(gate.awaitReached());
    const std::size_t threads = threadIds().size();
    worker.start();
    EXPECT_EQ(threadIds().size(), threads);
    gate.open();
    EXPECT_EQ(worker.wait(cLimit), true);
    EXPECT_EQ(runs.load(), 1);
}

TEST_F(VornThreadTest, Stop_OnlyAsksAndStartForgetsTheRequest) {
    Checkpoint gate;
    std::atomic<bool> before{true};
    std::atomic<bool> after{false};
    Worker worker([&](Worker& self) {
        before = self.isStopRequested();
        gate.pass();
        after = self.isStopRequested();
        return 0;
    });
    EXPECT_EQ(worker.isStopRequested(), false);
    worker.stop();
    EXPECT_EQ(worker.isStopRequested(), true);
    worker.start();
    EXPECT_TRUE(gate.awaitReached());
    worker.stop();
    EXPECT_EQ(worker.wait(0), false);
    gate.open();
    EXPECT_EQ(worker.wait(cLimit), true);
    EXPECT_EQ(before.load(), false);
    EXPECT_EQ(after.load(), true);
}

TEST_F(VornThreadTest, Name_IsShownByTheSystemCutTo15Bytes) {
    EXPECT_EQ(systemNameOf("quorax"), "quorax\n");
    EXPECT_EQ(systemNameOf("123456789012345"), "123456789012345\n");
    EXPECT_EQ(systemNameOf("1234567890123456789"), "123456789012345\n");
}

TEST_F(VornThreadTest, OnlyTheThreadItself_IsItsOwnThread) {
    bool inside = false;
    Worker worker([&](Worker& self) {
        inside = self.isOwnThread();
        return 0;
    });
    EXPECT_EQ(worker.isOwnThread(), false);
    worker.start();
    EXPECT_EQ(worker.wait(cLimit), true);
    EXPECT_EQ(inside, true);
    EXPECT_EQ(worker.isOwnThread(), false);
}

TEST_F(VornThreadTest, AnExceptionThatLeavesRun_IsLoggedAtLevelOneWithTextAndCode) {
    const std::pair<std::function<int(Worker&)>, std::string> rows[] = {
        {[](Worker&) -> int { throw VornException("Widget::open: failed.", 98); },
         "Widget::open: failed. (code=98)"},
        {[](Worker&) -> int { throw std::runtime_error("out of luck"); }, "out of luck (code=0)"},
        {[](Worker&) -> int { throw 7; }, "exception of unknown type (code=0)"},
    };
    for (const auto& [work, text] : rows) {
        LogCapture log(1);
        Worker worker("quorax", work);
        worker.start();
        EXPECT_EQ(worker.wait(cLimit), true);
        EXPECT_THAT(log.records(), ElementsAre(LogCapture::Record{
                                       1, "VornThread::run: exception ended thread 'quorax': " + text}));
    }
}

TEST_F(VornThreadTest, AnExceptionThatLeavesRun_IsNotLoggedBelowLevelOneAndTheThreadCanBeStartedAgain) {
    LogCapture log(0);
    int runs = 0;
    Worker worker([&](Worker&) -> int {
        ++runs;
        throw VornException("again", 1);
    });
    worker.start();
    EXPECT_EQ(worker.wait(cLimit), true);
    worker.start();
    EXPECT_EQ(worker.wait(cLimit), true);
    EXPECT_EQ(runs, 2);
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornThreadTest, ACancelledThread_HasEndedAndIsNotLogged) {
    LogCapture log(9);
    VornEvent entered;
    pthread_t handle{};
    Worker worker([&](Worker&) {
        handle = ::pthread_self();
        entered.set();
        for (;;) {
            ::pthread_testcancel(); // no sleep: a thread sanitizer loses its way when that is cancelled
        }
        return 0;
    });
    worker.start();
    EXPECT_EQ(entered.wait(cLimit), true);
    EXPECT_EQ(::pthread_cancel(handle), 0);
    EXPECT_EQ(worker.wait(cLimit), true);
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornThreadTest, WhenNoThreadCanBeCreated_StartThrowsAndNothingRuns) {
    const FaultRule none("pthread_create", EAGAIN);
    VornThread thread("none");
    EXPECT_EQ(thrownBy([&] { thread.start(); }), "VornThread::start: failed to create thread. 11");
    EXPECT_EQ(thread.wait(0), true);
}

TEST_F(VornThreadTest, ItsOwnRuns_ReturnZero) {
    class Bare : public VornThread {
    public:
        using VornThread::VornThread;
    };

    Bare bare("bare");
    VornWorkInformation work;
    EXPECT_EQ(bare.run(), 0);
    EXPECT_EQ(bare.run(work), 0);
    bare.start();
    EXPECT_EQ(bare.wait(cLimit), true);
}

TEST_F(VornThreadTest, WorkInformation_IsPassedToTheOtherRunByTheNextStart) {
    class Working : public VornThread {
    public:
        Working() : VornThread("working") {}

        ~Working() override { wait(-1); }

        using VornThread::run;

        int run(VornWorkInformation& workInfo) override {
            m_seen = &workInfo;
            return 0;
        }

        VornWorkInformation* m_seen = nullptr;
    };

    Working thread;
    const VornSmartPointer<VornWorkInformation> work(new VornWorkInformation);
    thread.start();
    EXPECT_EQ(thread.wait(cLimit), true);
    EXPECT_EQ(thread.m_seen, nullptr);
    thread.setWorkInfo(work);
    EXPECT_EQ(work->refCount(), 2);
    thread.start();
    EXPECT_EQ(thread.wait(cLimit), true);
    EXPECT_EQ(thread.m_seen, static_cast<VornWorkInformation*>(work));
    thread.setWorkInfo(nullptr);
    EXPECT_EQ(work->refCount(), 1);
}

TEST_F(VornThread_Work, WhileTheThreadTakesIt_TheOperationsOfOthersWait) {
    m_work->m_holdsAdding = true;
    m_thread.m_starting.open();
    EXPECT_TRUE(m_work->m_holding.awaitReached());
    WatchedThread setter([&] { m_thread.setWorkInfo(nullptr); });
    WatchedThread starter([&] { m_thread.start(); });
    WatchedThread stopper([&] { m_thread.stop(); });
    WatchedThread waiter([&] { m_thread.wait(0); });
    WatchedThread asker([&] { m_thread.isStopRequested(); });
    WatchedThread other([&] { m_thread.isOwnThread(); });
    for (WatchedThread* visitor : {&setter, &starter, &stopper, &waiter, &asker, &other}) {
        EXPECT_TRUE(awaitBlockedOnLock(visitor->tid()));
        EXPECT_FALSE(visitor->finished());
    }
    m_work->m_holdsAdding = false;
    m_work->m_holding.open();
    for (WatchedThread* visitor : {&setter, &starter, &stopper, &waiter, &asker, &other})
        EXPECT_TRUE(visitor->join());
    EXPECT_EQ(m_thread.wait(cLimit), true);
    EXPECT_EQ(m_thread.m_worked, true);
}

TEST_F(VornThread_Work, WhileItIsBeingSet_TheThreadWaitsBeforeItTakesIt) {
    m_work->m_holdsReleasing = true;
    WatchedThread setter([&] { m_thread.setWorkInfo(nullptr); });
    EXPECT_TRUE(m_work->m_holding.awaitReached());
    expectToWait();
    m_work->m_holding.open();
    EXPECT_TRUE(setter.join());
    EXPECT_EQ(m_thread.wait(cLimit), true);
    EXPECT_EQ(m_thread.m_worked, false);
}

TEST_F(VornThread_Work, WhileItIsBeingSet_TheThreadWaitsAtItsEnd) {
    m_thread.m_takesWork = false;
    m_work->m_holdsReleasing = true;
    WatchedThread setter([&] { m_thread.setWorkInfo(nullptr); });
    EXPECT_TRUE(m_work->m_holding.awaitReached());
    expectToWait();
    m_work->m_holding.open();
    EXPECT_TRUE(setter.join());
}

TEST_F(VornThreadTest, Priority_IsAcceptedWithoutEffect) {
    sched_param parameters = {};
    int policy = -1;
    sched_param expectedParameters = {};
    int expectedPolicy = -2;
    ::pthread_getschedparam(::pthread_self(), &expectedPolicy, &expectedParameters);
    Worker worker([&](Worker&) {
        ::pthread_getschedparam(::pthread_self(), &policy, &parameters);
        return 0;
    });
    worker.setPriority(VornThread::cPriorityHigh);
    worker.start();
    EXPECT_EQ(worker.wait(cLimit), true);
    EXPECT_EQ(policy, expectedPolicy);
    EXPECT_EQ(parameters.sched_priority, expectedParameters.sched_priority);
}

TEST_F(VornThreadTest, KeepsTheSignalMaskOfItsStarter) {
    sigset_t blocked;
    sigset_t old;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &old);
    int isBlocked = -1;
    Worker worker([&](Worker&) {
        sigset_t mask;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        isBlocked = sigismember(&mask, SIGUSR2);
        return 0;
    });
    worker.start();
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    EXPECT_EQ(worker.wait(cLimit), true);
    EXPECT_EQ(isBlocked, 1);
}

TEST_F(VornThreadTest, ItsDestructor_WaitsForTheThread) {
    class Careless : public VornThread {
    public:
        explicit Careless(Checkpoint& gate) : VornThread("careless"), m_gate(gate) {}

        int run() override {
            Checkpoint& gate = m_gate; // all that is used of the object, which is about to be destroyed
            gate.pass();
            return 0;
        }

        using VornThread::run;

    private:
        Checkpoint& m_gate;
    };

    Checkpoint gate;
    auto thread = std::make_unique<Careless>(gate);
    thread->start();
    EXPECT_TRUE(gate.awaitReached());
    WatchedThread destroyer([&] { thread.reset(); });
    EXPECT_TRUE(awaitBlockedOnLock(destroyer.tid()));
    EXPECT_FALSE(destroyer.finished());
    gate.open();
    EXPECT_TRUE(destroyer.join());
}

TEST_F(VornThreadTest, WhenRunLetsGoOfTheLastReference_TheThreadEndsByItself) {
    VornEvent destroyed;

    class SelfOwned : public VornThread {
    public:
        explicit SelfOwned(VornEvent& gone) : VornThread("self-owned"), m_gone(gone) {}

        ~SelfOwned() override { m_gone.set(); }

        int run() override {
            m_start.wait(-1);
            const VornSmartPointer<SelfOwned> last(m_self);
            m_self = nullptr;
            return 0;
        }

        using VornThread::run;

        VornSmartPointer<SelfOwned> m_self;
        VornEvent m_start;

    private:
        VornEvent& m_gone;
    };

    {
        VornSmartPointer<SelfOwned> thread(new SelfOwned(destroyed));
        SelfOwned* raw = thread;
        raw->m_self = thread;
        raw->start();
        thread = nullptr;
        raw->m_start.set();
    }
    EXPECT_EQ(destroyed.wait(cLimit), true);
}
