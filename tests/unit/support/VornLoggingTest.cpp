// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "Interpose.h"
#include "Interruptions.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Posix.h"
#include "Process.h"
#include "Sanitizer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <future>
#include <iostream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <VornLogging.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace VornTest;
using namespace VornSupport;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

/** Writes a record in the way of the library's own. */
template <typename... Values>
void logAt(int level, const Values&... values) {
    if (VornLogging::isAdmitted(level)) {
        VornLogging& logger = VornLogging::getInstance() << setloglevel(level);
        (logger << ... << values) << endrecord;
    }
}

/** Keeps a signal from the calling thread while it exists. */
class SignalBlock {
public:
    explicit SignalBlock(int number) {
        sigset_t set;
        ::sigemptyset(&set);
        ::sigaddset(&set, number);
        ::pthread_sigmask(SIG_BLOCK, &set, &m_before);
    }

    ~SignalBlock() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

private:
    sigset_t m_before = {};
};

enum class Channel { Pipe, StreamSocket };

/** Stands in for standard error while it exists; what is written is read only when the test says so. */
class StandardErrorChannel {
public:
    explicit StandardErrorChannel(Channel channel = Channel::Pipe, bool isBlocking = true)
        : m_saved(::dup(STDERR_FILENO)) {
        int ends[2] = {};
        EXPECT_EQ(channel == Channel::Pipe ? ::pipe2(ends, O_CLOEXEC)
                                           : ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends),
                  0);
        m_reading.reset(ends[0]);
        ::fcntl(ends[1], F_SETFL, O_WRONLY | (isBlocking ? 0 : O_NONBLOCK));
        ::dup2(ends[1], STDERR_FILENO);
        ::close(ends[1]);
        VornLogging::setRecordHandler({}); // a socket is standard error only for a program that says so
    }

    ~StandardErrorChannel() { finish(); }

    StandardErrorChannel(const StandardErrorChannel&) = delete;
    StandardErrorChannel& operator=(const StandardErrorChannel&) = delete;

    /** Reads from now on, until finish(). */
    void read() {
        m_reader = std::make_unique<WatchedThread>([this] {
            const SignalBlock noInterruption(SIGALRM);
            std::vector<char> buffer(1 << 16);
            for (ssize_t length = 1; length > 0;) {
                length = ::read(m_reading.get(), buffer.data(), buffer.size());
                m_text.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
            }
        });
    }

    /** Gives standard error back; the lines that have been written meanwhile, each with its end. */
    std::vector<std::string> finish() {
        if (!m_saved)
            return {};
        ::dup2(m_saved.get(), STDERR_FILENO);
        m_saved.reset();
        if (m_reader == nullptr)
            read();
        m_reader->join();
        std::vector<std::string> lines;
        for (std::size_t start = 0; start < m_text.size(); start += lines.back().size()) {
            const std::size_t end = std::min(m_text.find('\n', start), m_text.size() - 1);
            lines.push_back(m_text.substr(start, end + 1 - start));
        }
        return lines;
    }

private:
    UniqueFd m_saved;
    UniqueFd m_reading;
    std::string m_text;
    std::unique_ptr<WatchedThread> m_reader;
};

/** What a line of the default output is made of. */
struct Line {
    explicit Line(const std::string& written) {
        tm utc = {};
        int textStart = 0;
        const int values = std::sscanf(written.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%*6[0-9]Z %d [%d:%d]%n",
                                       &utc.tm_year, &utc.tm_mon, &utc.tm_mday, &utc.tm_hour, &utc.tm_min,
                                       &utc.tm_sec, &m_level, &m_pid, &m_tid, &textStart);
        const auto start = static_cast<std::size_t>(textStart) + 1;
        m_isWellFormed =
            values == 9 && written.size() > start && written[start - 1] == ' ' && written.back() == '\n';
        if (!m_isWellFormed)
            return;
        utc.tm_year -= 1900;
        utc.tm_mon -= 1;
        m_time = ::timegm(&utc);
        m_text = written.substr(start, written.size() - start - 1);
    }

    bool m_isWellFormed = false;
    time_t m_time = 0;
    int m_level = -99;
    pid_t m_pid = 0;
    pid_t m_tid = 0;
    std::string m_text;
};

/** The second that records show; that of time() may be over by some milliseconds. */
time_t secondNow() {
    timespec now = {};
    EXPECT_EQ(::clock_gettime(CLOCK_REALTIME, &now), 0);
    return now.tv_sec;
}

std::vector<std::string> textsOf(const std::vector<std::string>& writes) {
    std::vector<std::string> result;
    for (const std::string& written : writes)
        result.push_back(Line(written).m_text);
    return result;
}

class VornLoggingTest : public LeakCheckedTest {
protected:
    void SetUp() override { VornLogging::getInstance().setLogLevel(9); }

    void TearDown() override {
        VornLogging::setRecordHandler({});
        VornLogging::setAccessAllowed(true);
        VornLogging::getInstance().setLogLevel(VornLogging::cOff);
    }
};

/** A thread sanitizer loses its way when a thread is cancelled within a call that it watches. */
void spinUntilCancelled() {
    for (;;)
        ::pthread_testcancel();
}

/** Logs when it is destroyed. */
struct LastWords {
    const char* m_text;

    ~LastWords() { logAt(1, m_text); }
};

/** Static objects of this file are constructed before the program sets the level, and destroyed last. */
const LastWords g_lastWords{"destructor of a global object"};

} // namespace

KIT_ROLE(loggerDefaults) {
    std::cout << VornLogging::isAccessAllowed() << ' ' << VornLogging::getInstance().getLogLevel()
              << std::endl;
    for (int level = VornLogging::cUserOutput; level <= VornLogging::cLast; ++level)
        logAt(level, "not admitted");
    return 0;
}

KIT_ROLE(logAtTheEnd) {
    if (args.at(0) == "handler") {
        VornLogging::setRecordHandler(
            [](int level, const VornString& text) { std::cerr << level << "] " << text << std::endl; });
    }
    VornLogging::getInstance().setLogLevel(VornLogging::cError);
    static const LastWords local{"destructor of a local static object"};
    thread_local const LastWords threads{"destructor of a thread's object"};
    std::atexit([] { logAt(1, "exit handler"); });
    std::thread([] { thread_local const LastWords other{"destructor of another thread's object"}; }).join();
    logAt(1, "main of ", threads.m_text);
    return 0;
}

KIT_ROLE(exitWhileThreadsLog) {
    static std::atomic<long> records{0};
    VornLogging::setRecordHandler([](int, const VornString&) { ++records; });
    VornLogging::getInstance().setLogLevel(VornLogging::cDebug);
    for (int i = 0; i < 3; ++i) {
        std::thread([] {
            for (;;)
                logAt(9, "still here");
        }).detach();
    }
    return awaitCondition([] { return records > 100; }) ? 0 : 1;
}

KIT_ROLE(talkInPlaceOfStandardError) {
    ::close(STDERR_FILENO);
    if (args.at(0) == "before it starts")
        ::execl("/proc/self/exe", "self", "--kit-role", "talkInPlaceOfStandardError", "started", nullptr);
    int ends[2] = {};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 || ends[0] != STDERR_FILENO)
        return 2;
    VornLogging::getInstance().setLogLevel(9);
    logAt(1, "a record");
    std::array<char, 1000> bytes{};
    if (::write(ends[0], "four", 4) != 4)
        return 3;
    const ssize_t length = ::read(ends[1], bytes.data(), bytes.size());
    return ::write(STDOUT_FILENO, bytes.data(), static_cast<std::size_t>(length)) == length ? 0 : 4;
}

TEST_F(VornLoggingTest, InAFreshProcess_AccessIsAllowedTheLevelIsOffAndNothingIsWritten) {
    ChildProcess child = ChildProcess::spawnRole("loggerDefaults");
    EXPECT_EQ(child.readAllOutput(), "1 -1\n");
    EXPECT_EQ(child.readAllErrors(), "");
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(VornLoggingTest, ARecord_IsAdmittedWhenAccessIsAllowedAndTheLevelIsHighEnough) {
    VornLogging& logger = VornLogging::getInstance();
    for (const bool allowed : {true, false}) {
        for (int level = VornLogging::cOff; level <= VornLogging::cLast; ++level) {
            VornLogging::setAccessAllowed(allowed);
            logger.setLogLevel(level);
            EXPECT_EQ(VornLogging::isAccessAllowed(), allowed);
            EXPECT_EQ(logger.getLogLevel(), level);
            for (int record = VornLogging::cUserOutput; record <= VornLogging::cLast; ++record) {
                EXPECT_EQ(VornLogging::isAdmitted(record), allowed && level >= record)
                    << "allowed " << allowed << ", level " << level << ", record " << record;
            }
            VornLogging::setAccessAllowed(true); // what was set while it was forbidden holds now
            EXPECT_EQ(VornLogging::isAdmitted(VornLogging::cLast), level >= VornLogging::cLast);
        }
    }
}

// What a tracer does from outside: it has only the name of the object.
TEST_F(VornLoggingTest, RecordsForWhichATracerHasRaisedTheLevel_StayOutOfTheProgramsLog) {
    auto* admitted =
        static_cast<int*>(::dlsym(RTLD_DEFAULT, "_ZN11VornSupport11VornLogging16s_nAdmittedLevelE"));
    ASSERT_NE(admitted, nullptr);
    LogCapture log;
    for (const bool allowed : {true, false}) {
        VornLogging::setAccessAllowed(allowed);
        VornLogging::getInstance().setLogLevel(5);
        __atomic_store_n(admitted, 9, __ATOMIC_RELAXED);
        EXPECT_EQ(VornLogging::isAdmitted(9), true);
        logAt(9, "for the tracer");
        logAt(5, "for the program ", allowed ? "too" : "not");
    }
    VornLogging::getInstance().setLogLevel(9);
    __atomic_store_n(admitted, 9, __ATOMIC_RELAXED);
    logAt(9, "for the tracer, as the program allows none");
    EXPECT_THAT(log.records(), ElementsAre(LogCapture::Record{5, "for the program too"}));
}

TEST_F(VornLoggingTest, LevelAndAccessChangedByManyThreads_AgreeInTheEnd) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int round = 0; round < 1000; ++round) {
                VornLogging::setAccessAllowed((round + i) % 2 == 0);
                VornLogging::getInstance().setLogLevel((round + i) % 10);
                VornLogging::isAdmitted(4);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const int level = VornLogging::getInstance().getLogLevel();
    EXPECT_EQ(VornLogging::isAdmitted(level), VornLogging::isAccessAllowed());
    EXPECT_EQ(VornLogging::isAdmitted(level + 1), false);
}

TEST_F(VornLoggingTest, AHandler_GetsLevelAndTextOfEveryKindOfValueAsItIs) {
    LogCapture log;
    const char* nothing = nullptr;
    logAt(7, "chars ", VornString("a text\x1B"), ' ', static_cast<short>(SHRT_MIN), ' ', INT_MIN, ' ', 0);
    logAt(8, LONG_MIN, ' ', LONG_MAX, ' ', -4294967297L);
    logAt(9, 'x', '\t', '\n', '\0', '\xFF', nothing);
    VornLogging::getInstance() << setloglevel(3) << endrecord;
    EXPECT_THAT(log.records(),
                ElementsAre(LogCapture::Record{7, "chars a text\x1B -32768 -2147483648 0"},
                            LogCapture::Record{8, "-9223372036854775808 9223372036854775807 -4294967297"},
                            LogCapture::Record{9, std::string("x\t\n\0\xFF", 5)}, LogCapture::Record{3, ""}));
}

TEST_F(VornLoggingTest, ARecord_IsEmittedByEndrecordAndNotBefore) {
    LogCapture log;
    VornLogging::getInstance() << setloglevel(3) << "half";
    EXPECT_THAT(log.records(), IsEmpty());
    VornLogging::getInstance() << " and half" << endrecord;
    EXPECT_THAT(log.texts(), ElementsAre("half and half"));
}

TEST_F(VornLoggingTest, EndrecordWithoutARecord_DoesNothing) {
    LogCapture log;
    VornLogging::getInstance() << endrecord;
    endrecord(VornLogging::getInstance());
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornLoggingTest, ValuesWithoutALevel_OpenARecordOfLevelZero) {
    LogCapture log;
    VornLogging::getInstance() << "plain" << endrecord;
    std::thread([] { VornLogging::getInstance() << "the first of a thread" << endrecord; }).join();
    EXPECT_THAT(log.records(),
                ElementsAre(LogCapture::Record{0, "plain"}, LogCapture::Record{0, "the first of a thread"}));
}

TEST_F(VornLoggingTest, ARecordOpenedWithinAnother_IsWrittenByItself) {
    LogCapture log;
    const auto inner = [] {
        logAt(1, "inner ", 2);
        return 3;
    };
    VornLogging::getInstance() << setloglevel(5) << "outer ";
    VornLogging::getInstance() << inner() << " end" << endrecord;
    EXPECT_THAT(log.records(),
                ElementsAre(LogCapture::Record{1, "inner 2"}, LogCapture::Record{5, "outer 3 end"}));
}

TEST_F(VornLoggingTest, RecordsOfTwoThreads_DoNotMixWhileBothAreOpen) {
    LogCapture log;
    VornLogging::getInstance() << setloglevel(5) << "ours ";
    std::thread([] { logAt(6, "theirs"); }).join();
    VornLogging::getInstance() << "only" << endrecord;
    EXPECT_THAT(log.records(),
                ElementsAre(LogCapture::Record{6, "theirs"}, LogCapture::Record{5, "ours only"}));
}

TEST_F(VornLoggingTest, WithoutAHandler_ARecordIsOneLineWrittenAtOnceWithTimeLevelProcessAndThread) {
    for (const std::size_t length : {0, 100'000}) {
        const VornString text(length, 'x');
        StandardErrorChannel output;
        output.read();
        const CallTrace trace;
        const time_t before = secondNow();
        pid_t tid = 0;
        std::thread([&] {
            tid = currentTid();
            logAt(7, "VornWidget::open: ", 5, ' ', text);
        }).join();
        const time_t after = secondNow();
        EXPECT_EQ(trace.calls("write"), 1);
        const std::vector<std::string> lines = output.finish();
        ASSERT_THAT(lines, SizeIs(1));
        const Line line(lines[0]);
        EXPECT_EQ(line.m_isWellFormed, true) << lines[0];
        EXPECT_EQ(line.m_level, 7);
        EXPECT_EQ(line.m_pid, ::getpid());
        EXPECT_EQ(line.m_tid, tid);
        EXPECT_EQ(line.m_text, "VornWidget::open: 5 " + text);
        EXPECT_GE(line.m_time, before);
        EXPECT_LE(line.m_time, after);
    }
}

TEST_F(VornLoggingTest, WithoutAHandler_ControlCharactersAreShownAsHexadecimalNumbers) {
    // A peer's bytes get into records, and must not be able to write lines of their own.
    StandardErrorChannel output;
    logAt(4, "tab ", '\t', " zero ", '\0', " escape ", '\x1B', " delete ", '\x7F', " byte ", '\xFF',
          " return ", '\r', " backslash \\ ~");
    logAt(4, VornString("name\nforged line"), '\n');
    EXPECT_THAT(
        textsOf(output.finish()),
        ElementsAre("tab \\x09 zero \\x00 escape \\x1b delete \\x7f byte \xFF return \\x0d backslash \\ ~",
                    "name\\x0aforged line\\x0a"));
}

/** What standard error is while many threads log. */
struct Traffic {
    Channel channel;
    bool isBlocking;
    std::size_t length;
    int records;
};

void PrintTo(const Traffic& traffic, std::ostream* out) {
    *out << (traffic.channel == Channel::Pipe ? "pipe" : "stream socket")
         << (traffic.isBlocking ? "" : ", not blocking") << ", " << traffic.length << " bytes";
}

class VornLogging_Traffic : public VornLoggingTest, public testing::WithParamInterface<Traffic> {};

TEST_P(VornLogging_Traffic, OfManyThreadsAndSignals_EachRecordIsOneWholeLine) {
    constexpr int cThreads = 4;
    const Traffic traffic = GetParam();
    const auto textOf = [&](int thread, int record) {
        return std::to_string(record) + std::string(traffic.length, static_cast<char>('a' + thread));
    };
    StandardErrorChannel output(traffic.channel, traffic.isBlocking);
    const Interruptions signals(1);
    output.read();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < cThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int record = 0; record < traffic.records; ++record)
                logAt(9, textOf(thread, record));
        });
    }
    const SignalBlock othersAreInterrupted(SIGALRM);
    for (std::thread& thread : threads)
        thread.join();
    std::multiset<std::string> expected;
    for (int thread = 0; thread < cThreads; ++thread) {
        for (int record = 0; record < traffic.records; ++record)
            expected.insert(textOf(thread, record));
    }
    const std::vector<std::string> lines = output.finish();
    EXPECT_EQ(lines.size(), expected.size());
    int damaged = 0;
    for (const std::string& text : textsOf(lines)) {
        const auto found = expected.find(text);
        damaged += found == expected.end() ? 1 : 0;
        if (found != expected.end())
            expected.erase(found);
    }
    EXPECT_EQ(damaged, 0);
    EXPECT_EQ(expected.size(), 0U) << "records that are missing";
}

INSTANTIATE_TEST_SUITE_P(StandardErrors, VornLogging_Traffic,
                         testing::Values(Traffic{Channel::Pipe, true, 200, 200},
                                         Traffic{Channel::Pipe, true, 5'000, 100},
                                         Traffic{Channel::Pipe, true, 200'000, 20},
                                         Traffic{Channel::Pipe, false, 5'000, 100},
                                         Traffic{Channel::Pipe, false, 200'000, 20},
                                         Traffic{Channel::StreamSocket, true, 200'000, 20},
                                         Traffic{Channel::StreamSocket, false, 200'000, 20}));

TEST_F(VornLoggingTest, WhenStandardErrorTakesNoMore_ARecordIsCutAndTheNextBeginsOnALineOfItsOwn) {
    StandardErrorChannel output(Channel::Pipe, false);
    errno = EINTR;
    logAt(1, std::string(200'000, 'x'));
    EXPECT_EQ(errno, EINTR);
    logAt(1, "lost, since there is still no room");
    output.read();
    logAt(1, "the next");
    const std::vector<std::string> lines = output.finish();
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_LT(lines[0].size(), 200'000U);
    EXPECT_EQ(Line(lines[0]).m_isWellFormed, true);
    EXPECT_EQ(Line(lines[1]).m_text, "the next");
}

TEST_F(VornLoggingTest, WhenARecordIsCutByAnError_TheNextBeginsOnALineOfItsOwn) {
    StandardErrorChannel output(Channel::Pipe, false);
    output.read();
    {
        const FaultRule fault("write", EIO, 2);
        logAt(1, std::string(200'000, 'x'));
        EXPECT_EQ(fault.failures(), 1);
    }
    logAt(1, "the next");
    const std::vector<std::string> lines = output.finish();
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(Line(lines[1]).m_text, "the next");
}

TEST_F(VornLoggingTest, WhenRoomCannotBeAwaited_ARecordIsCutAtOnce) {
    StandardErrorChannel output(Channel::Pipe, false);
    {
        const FaultRule fault("poll", ENOMEM, 1, FaultRule::always);
        logAt(1, std::string(200'000, 'x'));
        EXPECT_EQ(fault.failures(), 2); // of the record and of its line end
    }
    EXPECT_THAT(output.finish(), SizeIs(1));
}

TEST_F(VornLoggingTest, WhenTheWaitForRoomIsInterrupted_ItGoesOn) {
    StandardErrorChannel output(Channel::Pipe, false);
    const FaultRule fault("poll", EINTR);
    const CallHook reader("poll", [&] { output.read(); });
    logAt(1, std::string(200'000, 'x'));
    const std::vector<std::string> lines = output.finish();
    EXPECT_EQ(fault.failures(), 1);
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_GT(lines[0].size(), 200'000U);
}

TEST_F(VornLoggingTest, WhenStandardErrorTakesNothingOrIsOnlyInterrupted_TheRecordIsGivenUp) {
    StandardErrorChannel output;
    {
        FaultRule nothing("write", 0);
        nothing.returning(0);
        logAt(1, "lost");
    }
    {
        const FaultRule interrupted("write", EINTR, 1, FaultRule::always);
        logAt(1, "lost");
        EXPECT_EQ(interrupted.failures(), 10'000);
    }
    logAt(1, "the next");
    EXPECT_THAT(textsOf(output.finish()), ElementsAre("the next"));
}

TEST_F(VornLoggingTest, AThreadCancelledInTheMidstOfARecord_LeavesTheLoggerUsable) {
    if (underAddressSanitizer)
        GTEST_SKIP() << overflowsByItself;
    StandardErrorChannel output;
    WatchedThread writer([] { logAt(1, std::string(200'000, 'x')); });
    EXPECT_TRUE(awaitBlockedIn(writer.tid(), {SYS_write}));
    ::pthread_cancel(writer.handle());
    EXPECT_TRUE(writer.join());
    EXPECT_EQ(writer.exceptionText(), "cancelled");
    output.read();
    logAt(1, "the next");
    const std::vector<std::string> lines = output.finish();
    ASSERT_THAT(lines, SizeIs(2));
    EXPECT_EQ(Line(lines[1]).m_text, "the next");
}

TEST_F(VornLoggingTest, WhenASocketGetsTheNumberOfStandardError_ItsPeerGetsNoRecord) {
    for (const char* when : {"while the program runs", "before it starts"}) {
        ChildProcess child = ChildProcess::spawnRole("talkInPlaceOfStandardError", when);
        EXPECT_EQ(child.readAllOutput(), "four") << when;
        EXPECT_EQ(child.wait(), 0) << when;
    }
}

TEST_F(VornLoggingTest, WhenAnotherSocketTakesThePlaceOfStandardError_ItsPeerGetsNoRecord) {
    StandardErrorChannel output(Channel::StreamSocket);
    int ends[2] = {};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    const UniqueFd connection(ends[0]);
    const UniqueFd peer(ends[1]);
    ::dup2(connection.get(), STDERR_FILENO);
    logAt(1, "to nobody");
    char byte = 0;
    EXPECT_EQ(::recv(peer.get(), &byte, 1, 0), -1);
    EXPECT_THAT(output.finish(), IsEmpty());
}

TEST_F(VornLoggingTest, WhenAFileTakesThePlaceOfStandardError_RecordsGoThere) {
    const UniqueFd saved(::dup(STDERR_FILENO));
    const UniqueFd file(::memfd_create("log", MFD_CLOEXEC));
    ::dup2(file.get(), STDERR_FILENO);
    logAt(1, "to the file");
    ::dup2(saved.get(), STDERR_FILENO);
    std::array<char, 200> text{};
    const ssize_t length = ::pread(file.get(), text.data(), text.size(), 0);
    EXPECT_EQ(Line(std::string(text.data(), static_cast<std::size_t>(length))).m_text, "to the file");
}

TEST_F(VornLoggingTest, WhenStandardErrorIsClosed_LoggingGoesOnWithoutATrace) {
    const UniqueFd saved(::dup(STDERR_FILENO));
    ::close(STDERR_FILENO);
    errno = EINTR;
    logAt(1, "to nobody");
    const int error = errno;
    ::dup2(saved.get(), STDERR_FILENO);
    EXPECT_EQ(error, EINTR);
}

TEST_F(VornLoggingTest, AHandler_ReplacesTheOneBeforeAndAnEmptyOneRestoresTheDefaultOutput) {
    std::vector<std::string> first;
    std::vector<std::string> second;
    StandardErrorChannel output;
    VornLogging::setRecordHandler([&](int, const VornString& text) { first.push_back(text); });
    logAt(1, "one");
    VornLogging::setRecordHandler([&](int, const VornString& text) { second.push_back(text); });
    logAt(1, "two");
    VornLogging::setRecordHandler({});
    logAt(1, "written");
    EXPECT_THAT(first, ElementsAre("one"));
    EXPECT_THAT(second, ElementsAre("two"));
    EXPECT_THAT(textsOf(output.finish()), ElementsAre("written"));
}

TEST_F(VornLoggingTest, AReplacedHandler_IsDestroyedWithWhatItHolds) {
    const auto held = std::make_shared<int>(1);
    VornLogging::setRecordHandler([held](int, const VornString&) {});
    EXPECT_EQ(held.use_count(), 2);
    VornLogging::setRecordHandler({});
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(VornLoggingTest, AHandlerThatThrows_LosesTheRecordAndNothingElse) {
    int calls = 0;
    VornLogging::setRecordHandler([&](int, const VornString&) {
        ++calls;
        if (calls == 1)
            throw std::runtime_error("no");
        if (calls == 2)
            throw 7;
    });
    errno = EINTR;
    EXPECT_NO_THROW(logAt(1, "one"));
    EXPECT_NO_THROW(logAt(1, "two"));
    EXPECT_EQ(errno, EINTR);
    WatchedThread other([] { logAt(1, "three"); });
    EXPECT_TRUE(other.join());
    EXPECT_EQ(calls, 3);
}

TEST_F(VornLoggingTest, AHandler_MayLogItself) {
    std::vector<std::string> texts;
    VornLogging::setRecordHandler([&](int level, const VornString& text) {
        if (level == 1)
            logAt(2, "about ", text);
        texts.push_back(text);
    });
    logAt(1, "it");
    EXPECT_THAT(texts, ElementsAre("about it", "it"));
}

TEST_F(VornLoggingTest, AHandler_MayReplaceItself) {
    std::vector<std::string> texts;
    VornLogging::setRecordHandler(
        [&texts, kept = std::make_shared<std::string>("first")](int, const VornString&) {
            VornLogging::setRecordHandler(
                [&texts](int, const VornString& text) { texts.push_back("second " + text); });
            texts.push_back(*kept);
        });
    logAt(1, "a");
    logAt(1, "b");
    EXPECT_THAT(texts, ElementsAre("first", "second b"));
}

TEST_F(VornLoggingTest, AHandler_GetsOneRecordAtATime) {
    int inside = 0; // plain, as the handler of a program may keep it
    int most = 0;
    int records = 0;
    VornLogging::setRecordHandler([&](int, const VornString&) {
        most = std::max(most, ++inside);
        ++records;
        std::this_thread::yield();
        --inside;
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int record = 0; record < 250; ++record)
                logAt(9, "record ", record);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(most, 1);
    EXPECT_EQ(records, 1000);
}

TEST_F(VornLoggingTest, ReplacingAHandlerThatRuns_WaitsForIt) {
    std::promise<void> entered;
    std::promise<void> leave;
    VornLogging::setRecordHandler([&](int, const VornString&) {
        entered.set_value();
        leave.get_future().wait();
    });
    WatchedThread writer([] { logAt(1, "slow"); });
    entered.get_future().wait();
    WatchedThread replacer([] { VornLogging::setRecordHandler({}); });
    EXPECT_TRUE(awaitBlockedOnLock(replacer.tid()));
    EXPECT_FALSE(replacer.finished());
    leave.set_value();
    EXPECT_TRUE(writer.join() && replacer.join());
}

TEST_F(VornLoggingTest, AThreadCancelledInAHandler_DiesOfItAndLeavesTheLoggerUsable) {
    std::atomic<bool> entered{false};
    VornLogging::setRecordHandler([&](int, const VornString&) {
        entered = true;
        spinUntilCancelled();
    });
    WatchedThread writer([] { logAt(1, "last"); });
    EXPECT_TRUE(awaitCondition([&] { return entered.load(); }));
    ::pthread_cancel(writer.handle());
    EXPECT_TRUE(writer.join());
    EXPECT_EQ(writer.exceptionText(), "cancelled");
    LogCapture log;
    logAt(1, "next");
    EXPECT_THAT(log.texts(), ElementsAre("next"));
}

TEST_F(VornLoggingTest, ErrnoIsKept_WhateverTheHandlerDoes) {
    VornLogging::setRecordHandler([](int, const VornString&) { errno = ENOSPC; });
    errno = ECONNREFUSED;
    VornLogging::getInstance() << setloglevel(1);
    EXPECT_EQ(errno, ECONNREFUSED);
    VornLogging::getInstance() << "text" << VornString(100000, 'x') << 'c' << 5L;
    EXPECT_EQ(errno, ECONNREFUSED);
    VornLogging::getInstance() << endrecord;
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(VornLoggingTest, AtTheEndOfTheProcess_RecordsOfExitHandlersAndDestructorsAreWritten) {
    for (const char* output : {"handler", "default"}) {
        ChildProcess child = ChildProcess::spawnRole("logAtTheEnd", output);
        EXPECT_THAT(child.readAllErrors(), MatchesRegex("[^\n]*\\] destructor of another thread's object\n"
                                                        "[^\n]*\\] main of destructor of a thread's object\n"
                                                        "[^\n]*\\] destructor of a thread's object\n"
                                                        "[^\n]*\\] exit handler\n"
                                                        "[^\n]*\\] destructor of a local static object\n"
                                                        "[^\n]*\\] destructor of a global object\n"))
            << output;
        EXPECT_EQ(child.wait(), 0) << output;
    }
}

TEST_F(VornLoggingTest, WhenTheProcessExitsWhileThreadsLog_ItExitsInPeace) {
    for (int round = 0; round < 5; ++round) {
        ChildProcess child = ChildProcess::spawnRole("exitWhileThreadsLog");
        EXPECT_EQ(child.wait(), 0) << child.readAllErrors();
    }
}
