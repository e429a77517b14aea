// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"

#include "Posix.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <typeinfo>
#include <utility>

#include <cxxabi.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace VornTest {

namespace {

using Clock = std::chrono::steady_clock;

std::string taskFile(pid_t tid, const char* name) {
    try {
        return readTextFile("/proc/self/task/" + std::to_string(tid) + "/" + name);
    } catch (const std::exception&) {
        // The thread has ended, or the kernel keeps the file from us.
        return {};
    }
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

bool isSleeping(pid_t tid) {
    const std::string stat = taskFile(tid, "stat");
    // The name before the state is in brackets, and may itself contain any character.
    const std::size_t bracket = stat.rfind(')');
    return bracket != std::string::npos && stat.compare(bracket, 3, ") S") == 0;
}

bool isBlockedIn(const std::string& syscallFile, const std::vector<long>& numbers) {
    char* end = nullptr;
    const long number = std::strtol(syscallFile.c_str(), &end, 10);
    // "running" has no number, and a sleep which is no system call has a negative one.
    return end != syscallFile.c_str() && std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

bool awaitBlockedInAny(pid_t tid, const std::vector<long>& numbers) {
    // A thread seen asleep once may be asleep on any lock; one which stays so is probably where it should be.
    constexpr int enough = 20;
    int asleep = 0;
    return awaitCondition([&] {
        const std::string syscallFile = taskFile(tid, "syscall");
        if (!syscallFile.empty())
            return isSleeping(tid) && isBlockedIn(syscallFile, numbers);
        asleep = isSleeping(tid) ? asleep + 1 : 0;
        return asleep >= enough;
    });
}

std::string currentExceptionTypeName() {
    const std::type_info* type = abi::__cxa_current_exception_type();
    if (type == nullptr)
        return "foreign exception";
    int status = 0;
    char* readable = abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
    const std::string name = readable != nullptr ? readable : type->name();
    std::free(readable);
    return name;
}

} // namespace

bool awaitCondition(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    for (int attempt = 0; !condition(); ++attempt) {
        if (Clock::now() >= end)
            return false;
        // Most conditions become true within microseconds; the others should not keep a processor busy.
        if (attempt < 100) {
            std::this_thread::yield();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return true;
}

pid_t currentTid() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

std::vector<pid_t> threadIds() {
    std::vector<pid_t> result;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
        result.push_back(std::stoi(entry.path().filename()));
    return result;
}

bool awaitBlockedIn(pid_t tid, std::initializer_list<long> syscallNumbers) {
    return awaitBlockedInAny(tid, syscallNumbers);
}

bool awaitBlockedInIo(pid_t tid) {
    return awaitBlockedInAny(tid, {
#ifdef SYS_select
                                      SYS_select,
#endif
#ifdef SYS_poll
                                      SYS_poll,
#endif
#ifdef SYS_epoll_wait
                                      SYS_epoll_wait,
#endif
                                      SYS_pselect6, SYS_ppoll, SYS_epoll_pwait, SYS_accept, SYS_accept4,
                                      SYS_recvfrom, SYS_recvmsg, SYS_read, SYS_sendto, SYS_sendmsg, SYS_write,
                                      SYS_connect});
}

bool awaitBlockedOnLock(pid_t tid) {
    return awaitBlockedInAny(tid, {SYS_futex});
}

std::string describeThreads() {
    std::ostringstream out;
    for (const pid_t tid : threadIds()) {
        out << "  thread " << tid << " comm=" << firstLine(taskFile(tid, "comm"))
            << " syscall=" << firstLine(taskFile(tid, "syscall"))
            << " wchan=" << firstLine(taskFile(tid, "wchan")) << '\n';
    }
    return out.str();
}

WatchedThread::WatchedThread(std::function<void()> work)
    : m_thread([this, work = std::move(work)] { run(work); }) {}

WatchedThread::~WatchedThread() {
    if (m_thread.joinable())
        m_thread.join();
}

pid_t WatchedThread::tid() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_tid != 0; });
    return m_tid;
}

bool WatchedThread::finished() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_finished;
}

bool WatchedThread::join(std::chrono::milliseconds limit) {
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_changed.wait_for(lock, limit, [this] { return m_finished; })) {
            ADD_FAILURE() << "thread " << m_tid << " did not end within " << limit.count() << " ms\n"
                          << describeThreads();
            return false;
        }
    }
    if (m_thread.joinable())
        m_thread.join();
    return true;
}

std::optional<std::string> WatchedThread::exceptionText() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_exceptionText;
}

std::exception_ptr WatchedThread::exception() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_exception;
}

void WatchedThread::run(const std::function<void()>& work) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_tid = currentTid();
        m_changed.notify_all();
    }
    try {
        work();
        finish(nullptr, std::nullopt);
    } catch (const std::exception& exception) {
        finish(std::current_exception(), exception.what());
    } catch (...) {
        // A cancellation is no C++ exception, and the C library ends the program if it is not passed on.
        if (std::current_exception() == nullptr) {
            finish(nullptr, "cancelled");
            throw;
        }
        finish(std::current_exception(), currentExceptionTypeName());
    }
}

void WatchedThread::finish(std::exception_ptr exception, std::optional<std::string> text) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_exception = std::move(exception);
    m_exceptionText = std::move(text);
    m_finished = true;
    m_changed.notify_all();
}

} // namespace VornTest
