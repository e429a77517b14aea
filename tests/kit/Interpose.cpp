// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Fortified or large-file headers would rename or inline the very functions which are defined here.
#undef _FORTIFY_SOURCE
#undef _FILE_OFFSET_BITS

#include "Interpose.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <thread>
#include <tuple>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace VornTest {

namespace Detail {

struct FaultState {
    std::string function;
    int errorNumber = 0;
    int nth = 1;
    int times = 1;
    long result = -1;
    int fd = anyDescriptor;
    pid_t tid = 0;
    int calls = 0;
    int failures = 0;
};

struct TraceState {
    pid_t tid = 0;
    std::vector<CallRecord> records;
};

struct ScriptState {
    int fd = anyDescriptor;
    std::vector<RecvStep> steps;
    std::size_t next = 0;
    std::vector<RecvRequest> requests;
};

struct HookState {
    std::string function;
    std::function<void()> action;
    int times = 1;
};

struct LimitState {
    std::size_t maximum = 0;
    int fd = anyDescriptor;
};

} // namespace Detail

namespace {

using Detail::FaultState;
using Detail::HookState;
using Detail::LimitState;
using Detail::ScriptState;
using Detail::TraceState;

template <typename State>
using States = std::vector<std::shared_ptr<State>>;

struct Injection {
    long result = -1;
    int error = 0;
};

pid_t callingThread() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

/*
 * Looked at before anything else: while no object of this file exists, the functions must neither cost
 * anything nor synchronise threads with a mutex, which would hide races from a thread sanitizer.
 */
std::atomic<int> activeObjects{0};

// Set while this file or a hook works, so that calls made by them are simply forwarded.
thread_local bool busy = false;

class BusyScope {
public:
    BusyScope() { busy = true; }

    ~BusyScope() { busy = false; }

    BusyScope(const BusyScope&) = delete;
    BusyScope& operator=(const BusyScope&) = delete;
};

bool isWatched() {
    return activeObjects.load(std::memory_order_relaxed) != 0 && !busy;
}

class Registry {
public:
    static Registry& instance() {
        // Never destroyed: descriptors are still closed while the program's static objects are destroyed.
        static Registry* const registry = new Registry;
        return *registry;
    }

    template <typename State>
    void add(const std::shared_ptr<State>& state) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        list<State>().push_back(state);
        ++activeObjects;
    }

    template <typename State>
    void remove(const std::shared_ptr<State>& state) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        States<State>& states = list<State>();
        states.erase(std::remove(states.begin(), states.end(), state), states.end());
        --activeObjects;
    }

    std::mutex& mutex() { return m_mutex; }

    std::optional<Injection> injectionFor(const CallRecord& call);
    std::optional<Injection> scripted(const RecvRequest& request, char* buffer);
    std::size_t limited(int fd, std::size_t length);
    std::vector<std::function<void()>> hooksFor(const std::string& function);
    void record(const CallRecord& call);

private:
    template <typename State>
    States<State>& list() {
        return std::get<States<State>>(m_states);
    }

    std::mutex m_mutex;
    std::tuple<States<FaultState>, States<TraceState>, States<ScriptState>, States<HookState>,
               States<LimitState>>
        m_states;
};

bool matches(int wanted, int fd) {
    return wanted == anyDescriptor || wanted == fd;
}

bool countsFor(FaultState& rule, const CallRecord& call) {
    return rule.function == call.name && matches(rule.fd, call.argument) &&
           (rule.tid == 0 || rule.tid == call.tid);
}

bool countAndDecide(FaultState& rule) {
    ++rule.calls;
    const bool due =
        rule.calls >= rule.nth && (rule.times == FaultRule::always || rule.calls - rule.nth < rule.times);
    return due;
}

std::optional<Injection> Registry::injectionFor(const CallRecord& call) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::optional<Injection> result;
    for (const auto& rule : list<FaultState>()) {
        // Each rule counts each call, also one which another rule lets fail.
        if (countsFor(*rule, call) && countAndDecide(*rule) && !result) {
            ++rule->failures;
            result = Injection{rule->result, rule->errorNumber};
        }
    }
    return result;
}

Injection takeStep(ScriptState& script, const RecvRequest& request, char* buffer) {
    RecvStep& step = script.steps[script.next];
    const std::size_t room = std::min(step.data.size(), request.length);
    if (room > 0)
        std::memcpy(buffer, step.data.data(), room);
    const bool whole = room == step.data.size();
    const Injection result{whole ? step.result : static_cast<long>(room), step.error};
    if (whole) {
        ++script.next;
    } else {
        step.data.erase(0, room);
        step.result -= static_cast<ssize_t>(room);
    }
    return result;
}

std::optional<Injection> Registry::scripted(const RecvRequest& request, char* buffer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::optional<Injection> result;
    for (const auto& script : list<ScriptState>()) {
        if (!matches(script->fd, request.fd))
            continue;
        script->requests.push_back(request);
        if (!result && script->next < script->steps.size())
            result = takeStep(*script, request, buffer);
    }
    return result;
}

std::size_t Registry::limited(int fd, std::size_t length) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& limit : list<LimitState>()) {
        if (matches(limit->fd, fd))
            length = std::min(length, limit->maximum);
    }
    return length;
}

std::vector<std::function<void()>> Registry::hooksFor(const std::string& function) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::function<void()>> result;
    for (const auto& hook : list<HookState>()) {
        if (hook->function == function && hook->times > 0) {
            --hook->times;
            result.push_back(hook->action);
        }
    }
    return result;
}

void Registry::record(const CallRecord& call) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& trace : list<TraceState>()) {
        if (trace->tid == 0 || trace->tid == call.tid)
            trace->records.push_back(call);
    }
}

void* findReal(const char* name) {
    // In a program with a statically linked sanitizer the next definition would be the C library's, and the
    // sanitizer would no longer see the call.
    const std::string prefix = "__interceptor_";
    for (const std::string& interceptor : {prefix + name, "_" + prefix + name}) {
        if (void* function = ::dlsym(RTLD_DEFAULT, interceptor.c_str()))
            return function;
    }
    void* function = ::dlsym(RTLD_NEXT, name);
    if (function == nullptr) {
        std::fprintf(stderr, "there is no real %s()\n", name);
        std::abort();
    }
    return function;
}

template <typename Function>
Function realFunction(const char* name) {
    const int error = errno;
    void* const found = findReal(name);
    errno = error;
    return reinterpret_cast<Function>(found);
}

CallRecord describe(const char* name, int argument, long second = 0, long third = 0) {
    CallRecord call;
    call.name = name;
    call.argument = argument;
    call.second = second;
    call.third = third;
    call.tid = callingThread();
    return call;
}

CallRecord describePath(const char* name, const char* path, long second = 0, long third = 0) {
    CallRecord call = describe(name, -1, second, third);
    call.path = path;
    return call;
}

long nanosecondsOf(const timespec& time) {
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

/** What becomes of a call before the real function is tried. */
std::optional<Injection> before(const CallRecord& call) {
    const int error = errno;
    const BusyScope scope;
    for (const auto& hook : Registry::instance().hooksFor(call.name))
        hook();
    const std::optional<Injection> result = Registry::instance().injectionFor(call);
    errno = error;
    return result;
}

void after(CallRecord& call, long result) {
    const int error = errno;
    const BusyScope scope;
    call.result = result;
    call.error = result < 0 ? error : 0;
    Registry::instance().record(call);
    errno = error;
}

long apply(const Injection& injection) {
    if (injection.error != 0)
        errno = injection.error;
    return injection.result;
}

/** Makes the call, or what @p inject makes of an injection. */
template <typename Result, typename Real, typename Inject>
Result watched(CallRecord call, const Real& real, const Inject& inject) {
    const std::optional<Injection> injection = before(call);
    const Result result = injection ? static_cast<Result>(inject(*injection)) : real();
    after(call, static_cast<long>(result));
    return result;
}

std::optional<Injection> scriptedReceive(const RecvRequest& request, void* buffer) {
    const BusyScope scope;
    return Registry::instance().scripted(request, static_cast<char*>(buffer));
}

std::size_t limitedLength(int fd, std::size_t length) {
    const BusyScope scope;
    return Registry::instance().limited(fd, length);
}

template <typename Function>
auto locked(const Function& function) {
    const std::lock_guard<std::mutex> lock(Registry::instance().mutex());
    return function();
}

/** Hands the error number to the caller of a resolver function, who does not read errno. */
auto resolverError(int* error) {
    return [error](const Injection& injection) {
        *error = injection.error;
        return apply(injection);
    };
}

bool returnsItsErrorNumber(const std::string& function) {
    return function == "posix_fallocate" || function == "pthread_create";
}

/**
 * Whether the code at this address is a sanitizer's.
 *
 * The undefined behaviour sanitizer makes a pipe to find out whether an object can be read, in the midst of
 * any code: of what is watched, and of this file while it holds its lock.
 */
bool isSanitizer(const void* code) {
    Dl_info object = {};
    return isWatched() && ::dladdr(code, &object) != 0 && object.dli_fname != nullptr &&
           (std::strstr(object.dli_fname, "/libubsan.so") != nullptr ||
            std::strstr(object.dli_fname, "/libasan.so") != nullptr);
}

} // namespace

namespace Detail {

template <typename State>
Registered<State>::Registered(State state) : m_state(std::make_shared<State>(std::move(state))) {
    Registry::instance().add(m_state);
}

template <typename State>
Registered<State>::~Registered() {
    Registry::instance().remove(m_state);
}

template class Registered<FaultState>;
template class Registered<TraceState>;
template class Registered<ScriptState>;
template class Registered<HookState>;
template class Registered<LimitState>;

} // namespace Detail

FaultRule::FaultRule(const std::string& function, int errorNumber, int nth, int times, pid_t tid)
    : Registered({function, errorNumber, nth, times, returnsItsErrorNumber(function) ? errorNumber : -1,
                  anyDescriptor, tid}) {}

FaultRule& FaultRule::onlyDescriptor(int fd) {
    locked([&] { return m_state->fd = fd; });
    return *this;
}

FaultRule& FaultRule::onlyThread(pid_t tid) {
    locked([&] { return m_state->tid = tid; });
    return *this;
}

FaultRule& FaultRule::returning(long result) {
    locked([&] { return m_state->result = result; });
    return *this;
}

int FaultRule::calls() const {
    return locked([&] { return m_state->calls; });
}

int FaultRule::failures() const {
    return locked([&] { return m_state->failures; });
}

CallTrace::CallTrace(Scope scope) : Registered({scope == Scope::CallingThread ? callingThread() : 0, {}}) {}

std::vector<CallRecord> CallTrace::records() const {
    return locked([&] { return m_state->records; });
}

std::vector<CallRecord> CallTrace::records(const std::string& function) const {
    std::vector<CallRecord> result;
    for (const CallRecord& record : records()) {
        if (record.name == function)
            result.push_back(record);
    }
    return result;
}

int CallTrace::calls(const std::string& function) const {
    return static_cast<int>(records(function).size());
}

std::vector<std::string> CallTrace::names() const {
    std::vector<std::string> result;
    for (const CallRecord& record : records())
        result.push_back(record.name);
    return result;
}

void CallTrace::clear() {
    locked([&] {
        m_state->records.clear();
        return 0;
    });
}

RecvStep RecvStep::bytes(const std::string& data) {
    return {static_cast<ssize_t>(data.size()), 0, data};
}

RecvStep RecvStep::failure(int error) {
    return {-1, error, {}};
}

RecvStep RecvStep::end() {
    return {0, 0, {}};
}

RecvScript::RecvScript(std::vector<RecvStep> steps, int fd) : Registered({fd, std::move(steps), 0, {}}) {}

std::vector<RecvRequest> RecvScript::requests() const {
    return locked([&] { return m_state->requests; });
}

bool RecvScript::exhausted() const {
    return locked([&] { return m_state->next == m_state->steps.size(); });
}

TransferLimit::TransferLimit(std::size_t maximum, int fd) : Registered({maximum, fd}) {}

CallHook::CallHook(const std::string& function, std::function<void()> action, int times)
    : Registered({function, std::move(action), times}) {}

} // namespace VornTest

/*
 * The functions which pre-empt the C library's. VORNTEST_REAL finds the real one once for each function;
 * VORNTEST_WATCH forwards to it under the rules of the file, given a description of the call, and
 * VORNTEST_WATCH_INJECTING where an injection has to do more than to return.
 * VORNTEST_WATCHED is such a function: its parameters, the arguments for the real one, and what describes the
 * call. VORNTEST_CHECKED is what _FORTIFY_SOURCE calls in the place of one.
 */
#define VORNTEST_EXPORT __attribute__((visibility("default")))
#define VORNTEST_REAL(name) static const auto real = VornTest::realFunction<decltype(&::name)>(#name)
#define VORNTEST_WATCH(Result, description, realCall)                                                        \
    VORNTEST_WATCH_INJECTING(Result, description, realCall, VornTest::apply)
#define VORNTEST_WATCH_INJECTING(Result, description, realCall, inject)                                      \
    return VornTest::isWatched() ? VornTest::watched<Result>(                                                \
                                       description, [&] { return realCall; }, inject)                        \
                                 : realCall
#define VORNTEST_FUNCTION(Result, name, exceptions, parameters, arguments, description)                      \
    VORNTEST_EXPORT Result name parameters exceptions {                                                      \
        VORNTEST_REAL(name);                                                                                 \
        VORNTEST_WATCH(Result, description, real arguments);                                                 \
    }
#define VORNTEST_WATCHED(Result, name, exceptions, parameters, arguments, ...)                               \
    VORNTEST_FUNCTION(Result, name, exceptions, parameters, arguments, VornTest::describe(#name, __VA_ARGS__))
#define VORNTEST_CHECKED(Result, name, parameters, isTooLong, call)                                          \
    VORNTEST_EXPORT Result name parameters;                                                                  \
    VORNTEST_EXPORT Result name parameters {                                                                 \
        if (isTooLong)                                                                                       \
            std::abort();                                                                                    \
        return call;                                                                                         \
    }
#define VORNTEST_WATCHED_PATH(Result, name, exceptions, parameters, arguments, ...)                          \
    VORNTEST_FUNCTION(Result, name, exceptions, parameters, arguments,                                       \
                      VornTest::describePath(#name, __VA_ARGS__))

extern "C" {

VORNTEST_WATCHED(int, socket, noexcept, (int domain, int type, int protocol), (domain, type, protocol),
                 domain, type, protocol)
VORNTEST_WATCHED(int, bind, noexcept, (int fd, const sockaddr* address, socklen_t length),
                 (fd, address, length), fd)
VORNTEST_WATCHED(int, listen, noexcept, (int fd, int backlog), (fd, backlog), fd, backlog)
VORNTEST_WATCHED(int, accept, , (int fd, sockaddr* address, socklen_t* length), (fd, address, length), fd)
VORNTEST_WATCHED(int, accept4, , (int fd, sockaddr* address, socklen_t* length, int flags),
                 (fd, address, length, flags), fd, flags)
VORNTEST_WATCHED(int, connect, , (int fd, const sockaddr* address, socklen_t length), (fd, address, length),
                 fd)

VORNTEST_EXPORT ssize_t send(int fd, const void* data, size_t length, int flags) {
    VORNTEST_REAL(send);
    VORNTEST_WATCH(
        ssize_t, VornTest::describe("send", fd, static_cast<long>(length), flags),
        real(fd, data, VornTest::isWatched() ? VornTest::limitedLength(fd, length) : length, flags));
}

static ssize_t receiveForReal(int fd, void* buffer, size_t length, int flags) {
    VORNTEST_REAL(recv);
    if (!VornTest::isWatched())
        return real(fd, buffer, length, flags);
    if (const auto step = VornTest::scriptedReceive({fd, buffer, length, flags}, buffer))
        return static_cast<ssize_t>(VornTest::apply(*step));
    return real(fd, buffer, VornTest::limitedLength(fd, length), flags);
}

VORNTEST_EXPORT ssize_t recv(int fd, void* buffer, size_t length, int flags) {
    VORNTEST_WATCH(ssize_t, VornTest::describe("recv", fd, static_cast<long>(length), flags),
                   receiveForReal(fd, buffer, length, flags));
}

VORNTEST_WATCHED(ssize_t, sendto, ,
                 (int fd, const void* data, size_t length, int flags, const sockaddr* address,
                  socklen_t addressLength),
                 (fd, data, length, flags, address, addressLength), fd, long(length), flags)
VORNTEST_WATCHED(ssize_t, recvfrom, ,
                 (int fd, void* buffer, size_t length, int flags, sockaddr* address,
                  socklen_t* addressLength),
                 (fd, buffer, length, flags, address, addressLength), fd, long(length), flags)
VORNTEST_WATCHED(ssize_t, recvmsg, , (int fd, msghdr* message, int flags), (fd, message, flags), fd, 0, flags)
VORNTEST_WATCHED(int, setsockopt, noexcept,
                 (int fd, int level, int name, const void* value, socklen_t length),
                 (fd, level, name, value, length), fd, level, name)
VORNTEST_WATCHED(int, getsockopt, noexcept, (int fd, int level, int name, void* value, socklen_t* length),
                 (fd, level, name, value, length), fd, level, name)
VORNTEST_WATCHED(int, getsockname, noexcept, (int fd, sockaddr* address, socklen_t* length),
                 (fd, address, length), fd)
VORNTEST_WATCHED(int, shutdown, noexcept, (int fd, int how), (fd, how), fd, how)

VORNTEST_EXPORT int close(int fd) {
    VORNTEST_REAL(close);
    const auto closeAndFail = [fd](const VornTest::Injection& injection) {
        real(fd);
        return VornTest::apply(injection);
    };
    VORNTEST_WATCH_INJECTING(int, VornTest::describe("close", fd), real(fd), closeAndFail);
}

VORNTEST_EXPORT int pipe(int ends[2]) noexcept {
    VORNTEST_REAL(pipe);
    if (VornTest::isSanitizer(__builtin_return_address(0)))
        return real(ends);
    VORNTEST_WATCH(int, VornTest::describe("pipe", -1), real(ends));
}

VORNTEST_WATCHED(int, eventfd, noexcept, (unsigned count, int flags), (count, flags), -1, count, flags)
VORNTEST_WATCHED(uid_t, getuid, noexcept, (), (), -1)
VORNTEST_WATCHED(int, epoll_create1, noexcept, (int flags), (flags), -1, flags)
VORNTEST_WATCHED(int, epoll_ctl, noexcept, (int epoll, int operation, int fd, epoll_event* event),
                 (epoll, operation, fd, event), epoll, operation, fd)
VORNTEST_WATCHED(int, epoll_wait, , (int epoll, epoll_event* events, int count, int limit),
                 (epoll, events, count, limit), epoll, count, limit)

VORNTEST_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
    VORNTEST_REAL(ioctl);
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto answer = [argument](const VornTest::Injection& injection) {
        if (injection.result < 0)
            return VornTest::apply(injection);
        *static_cast<int*>(argument) = static_cast<int>(injection.result);
        return 0L;
    };
    VORNTEST_WATCH_INJECTING(int, VornTest::describe("ioctl", fd, static_cast<long>(request)),
                             real(fd, request, argument), answer);
}

VORNTEST_WATCHED(int, usleep, , (useconds_t microseconds), (microseconds), -1, microseconds)
VORNTEST_WATCHED(int, clock_nanosleep, ,
                 (clockid_t clock, int flags, const timespec* time, timespec* remaining),
                 (clock, flags, time, remaining), clock, flags, VornTest::nanosecondsOf(*time))

VORNTEST_EXPORT int getgrnam_r(const char* name, group* entry, char* buffer, size_t size, group** result) {
    VORNTEST_REAL(getgrnam_r);
    // Nothing but a call of the real function sets the result, and its reader looks there first.
    *result = nullptr;
    VORNTEST_WATCH(int, VornTest::describePath("getgrnam_r", name), real(name, entry, buffer, size, result));
}

VORNTEST_EXPORT int gethostbyname_r(const char* name, hostent* entry, char* buffer, size_t size,
                                    hostent** result, int* error) {
    VORNTEST_REAL(gethostbyname_r);
    *result = nullptr;
    VORNTEST_WATCH_INJECTING(int, VornTest::describePath("gethostbyname_r", name),
                             real(name, entry, buffer, size, result, error), VornTest::resolverError(error));
}

VORNTEST_EXPORT int gethostbyaddr_r(const void* address, socklen_t length, int family, hostent* entry,
                                    char* buffer, size_t size, hostent** result, int* error) {
    VORNTEST_REAL(gethostbyaddr_r);
    *result = nullptr;
    VORNTEST_WATCH_INJECTING(int, VornTest::describe("gethostbyaddr_r", -1, family, length),
                             real(address, length, family, entry, buffer, size, result, error),
                             VornTest::resolverError(error));
}

VORNTEST_WATCHED(ssize_t, read, , (int fd, void* buffer, size_t length), (fd, buffer, length), fd,
                 long(length))
VORNTEST_WATCHED(ssize_t, write, , (int fd, const void* data, size_t length), (fd, data, length), fd,
                 long(length))
VORNTEST_WATCHED(ssize_t, pread, , (int fd, void* buffer, size_t length, off_t offset),
                 (fd, buffer, length, offset), fd, long(length))
VORNTEST_WATCHED(ssize_t, pwrite, , (int fd, const void* data, size_t length, off_t offset),
                 (fd, data, length, offset), fd, long(length))
VORNTEST_WATCHED(int, flock, noexcept, (int fd, int operation), (fd, operation), fd, operation)
VORNTEST_WATCHED(int, ftruncate, noexcept, (int fd, off_t size), (fd, size), fd, size)
VORNTEST_WATCHED(int, posix_fallocate, , (int fd, off_t offset, off_t size), (fd, offset, size), fd, offset,
                 size)
// The C++ library calls it for std::thread.
VORNTEST_WATCHED(int, pthread_create, noexcept,
                 (pthread_t * thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument),
                 (thread, attributes, run, argument), -1)
VORNTEST_WATCHED(int, msync, , (void* address, size_t size, int flags), (address, size, flags), -1,
                 long(size), flags)
VORNTEST_WATCHED(int, timerfd_create, noexcept, (int clock, int flags), (clock, flags), -1, clock, flags)
VORNTEST_WATCHED(int, timerfd_settime, noexcept,
                 (int fd, int flags, const itimerspec* time, itimerspec* previous),
                 (fd, flags, time, previous), fd, flags)
VORNTEST_WATCHED(int, getpeername, noexcept, (int fd, sockaddr* address, socklen_t* length),
                 (fd, address, length), fd)
VORNTEST_WATCHED_PATH(int, unlink, noexcept, (const char* path), (path), path)
VORNTEST_WATCHED_PATH(int, lstat, noexcept, (const char* path, struct stat* status), (path, status), path)
VORNTEST_WATCHED_PATH(int, renameat2, noexcept,
                      (int from, const char* path, int to, const char* newPath, unsigned flags),
                      (from, path, to, newPath, flags), path)
VORNTEST_WATCHED(ssize_t, getrandom, , (void* data, size_t length, unsigned flags), (data, length, flags), -1,
                 long(length), flags)
VORNTEST_WATCHED_PATH(int, chmod, noexcept, (const char* path, mode_t mode), (path, mode), path, mode)
VORNTEST_WATCHED(int, fchmod, noexcept, (int fd, mode_t mode), (fd, mode), fd, mode)
VORNTEST_WATCHED_PATH(int, chown, noexcept, (const char* path, uid_t user, gid_t group), (path, user, group),
                      path, user, group)
VORNTEST_WATCHED(int, select, ,
                 (int count, fd_set* reading, fd_set* writing, fd_set* exceptional, timeval* limit),
                 (count, reading, writing, exceptional, limit), count)
VORNTEST_WATCHED(int, poll, , (pollfd * entries, nfds_t count, int limit), (entries, count, limit),
                 count > 0 ? entries[0].fd : -1, long(count), limit)
VORNTEST_WATCHED(int, ppoll, , (pollfd * entries, nfds_t count, const timespec* limit, const sigset_t* mask),
                 (entries, count, limit, mask), count > 0 ? entries[0].fd : -1, long(count))
VORNTEST_WATCHED(int, fstat, noexcept, (int fd, struct stat* file), (fd, file), fd)

VORNTEST_EXPORT int fcntl(int fd, int command, ...) {
    VORNTEST_REAL(fcntl);
    // Whether there is an argument, and of which type, depends on the command; a pointer is wide enough for
    // all.
    std::va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const long number = static_cast<int>(reinterpret_cast<std::intptr_t>(argument));
    VORNTEST_WATCH(int, VornTest::describe("fcntl", fd, command, number), real(fd, command, argument));
}

/*
 * What programs call which are compiled for files above two gigabytes or with _FORTIFY_SOURCE.
 */
VORNTEST_EXPORT int fcntl64(int fd, int command, ...) {
    std::va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return fcntl(fd, command, argument);
}

VORNTEST_CHECKED(ssize_t, __recv_chk, (int fd, void* buffer, size_t length, size_t room, int flags),
                 length > room, recv(fd, buffer, length, flags))
VORNTEST_CHECKED(ssize_t, __recvfrom_chk,
                 (int fd, void* buffer, size_t length, size_t room, int flags, sockaddr* address,
                  socklen_t* addressLength),
                 length > room, recvfrom(fd, buffer, length, flags, address, addressLength))
VORNTEST_CHECKED(ssize_t, __read_chk, (int fd, void* buffer, size_t length, size_t room), length > room,
                 read(fd, buffer, length))
VORNTEST_CHECKED(int, __poll_chk, (pollfd * entries, nfds_t count, int limit, size_t room),
                 count > room / sizeof(pollfd), poll(entries, count, limit))
VORNTEST_CHECKED(int, __ppoll_chk,
                 (pollfd * entries, nfds_t count, const timespec* limit, const sigset_t* mask, size_t room),
                 count > room / sizeof(pollfd), ppoll(entries, count, limit, mask))

} // extern "C"
