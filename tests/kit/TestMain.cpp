// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * The main() of every test program.
 */

#include "Await.h"
#include "Process.h"
#include "Sandbox.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

/** The thread sanitizer's defaults: children of tests start threads, and signal handlers close servers. */
extern "C" const char* __tsan_default_options();

const char* __tsan_default_options() {
    return "die_after_fork=0:report_signal_unsafe=0";
}

namespace {

unsigned guardSeconds() {
    const char* text = std::getenv("VORNTEST_GUARD_SECONDS");
    const unsigned long seconds = text != nullptr ? std::strtoul(text, nullptr, 10) : 0;
    return seconds > 0 ? static_cast<unsigned>(seconds) : 120U;
}

/**
 * Ends the program if a test hangs. Its thread lives from before the first test until after the last one, so
 * that a test which counts threads finds the same number before and after.
 */
class Watchdog : public testing::EmptyTestEventListener {
public:
    Watchdog() : m_thread([this](const std::stop_token& ending) { watch(ending); }) {}

private:
    void OnTestSuiteStart(const testing::TestSuite& suite) override {
        begin(std::string("suite ") + suite.name());
    }

    void OnTestStart(const testing::TestInfo& test) override {
        begin(std::string(test.test_suite_name()) + "." + test.name());
    }

    void OnTestEnd(const testing::TestInfo& test) override {
        begin(std::string("suite ") + test.test_suite_name());
    }

    void OnTestSuiteEnd(const testing::TestSuite&) override { begin({}); }

    /** @param name of what is guarded from now on; empty for nothing */
    void begin(const std::string& name) {
        const std::lock_guard lock(m_mutex);
        m_name = name;
        ++m_begun;
        m_changed.notify_all();
    }

    void watch(const std::stop_token& ending) {
        std::unique_lock lock(m_mutex);
        while (!ending.stop_requested()) {
            const auto isOver = [this, begun = m_begun] { return m_begun != begun; };
            if (!m_changed.wait_for(lock, ending, m_guardTime, isOver) && !ending.stop_requested() &&
                !m_name.empty())
                bark();
        }
    }

    [[noreturn]] void bark() const {
        std::fprintf(stderr, "test %s hangs: it took more than %lld s; the threads:\n%s", m_name.c_str(),
                     static_cast<long long>(m_guardTime.count()), VornTest::describeThreads().c_str());
        std::fflush(stderr);
        std::abort();
    }

    std::mutex m_mutex;
    std::condition_variable_any m_changed;
    const std::chrono::seconds m_guardTime{guardSeconds()};
    std::string m_name;
    int m_begun = 0;
    std::jthread m_thread;
};

bool onlyListsTests(const std::vector<std::string>& arguments) {
    // The build lists the tests, possibly where no sandbox can be had.
    return std::find(arguments.begin(), arguments.end(), "--gtest_list_tests") != arguments.end();
}

int playRole(const std::vector<std::string>& arguments) {
    // A role whose test has been killed must not stay forever.
    ::alarm(guardSeconds());
    // The test reads lines while the role is still running.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    return VornTest::runRole(arguments.at(2), {arguments.begin() + 3, arguments.end()});
}

int runTests(int argc, char** argv) {
    // The other style forks, which leaves the child without the threads its parent has.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    testing::InitGoogleMock(&argc, argv);
    Watchdog watchdog;
    auto& listeners = testing::UnitTest::GetInstance()->listeners();
    listeners.Append(&watchdog);
    const int result = RUN_ALL_TESTS();
    listeners.Release(&watchdog);
    return result;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv, argv + argc);
    if (!onlyListsTests(arguments))
        VornTest::enterSandbox();
    std::signal(SIGPIPE, SIG_IGN);
    // A role keeps the setting: its test has put it there.
    if (arguments.size() > 2 && arguments[1] == "--kit-role")
        return playRole(arguments);
    ::unsetenv("QUORAX_CALLB_CONN_TYPE");
    return runTests(argc, argv);
}
