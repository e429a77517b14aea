// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_INTERPOSE_H
#define VORNTEST_INTERPOSE_H

#include "Checkpoint.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

/**
 * @file
 * Faults injected into, and records taken of, the C library's functions.
 *
 * A program linked with the library of this file defines the functions socket, bind, listen, accept,
 * accept4, connect, send, recv, sendto, recvfrom, recvmsg, setsockopt, getsockname, getpeername, getsockopt,
 * shutdown, close, pipe, eventfd, epoll_create1, epoll_ctl, epoll_wait, ioctl,
 * getrandom, read, write, pread, pwrite, flock, ftruncate, posix_fallocate, pthread_create, msync,
 * timerfd_create, timerfd_settime, lstat, unlink, renameat2, chmod, chown, fchmod, fstat, select, poll,
 * ppoll, fcntl, usleep, clock_nanosleep, getuid, getgrnam_r, gethostbyname_r and gethostbyaddr_r itself,
 * which pre-empts the C library's for everybody who calls them through the dynamic linker or from an archive.
 * They forward to the real ones unless an object of the classes below says otherwise. Calls which the C
 * library makes from within itself are not seen. The kit's own peers are seen: make them before, or say which
 * thread or descriptor is meant.
 */
namespace VornTest {

/** Matches calls with any descriptor. */
inline constexpr int anyDescriptor = -1;

namespace Detail {
struct FaultState;
struct TraceState;
struct ScriptState;
struct HookState;
struct LimitState;

/** A state that the functions look at while it exists. */
template <typename State>
class Registered {
public:
    Registered(const Registered&) = delete;
    Registered& operator=(const Registered&) = delete;

protected:
    explicit Registered(State state);
    ~Registered();

    const std::shared_ptr<State> m_state;
};
} // namespace Detail

/**
 * Makes calls of a function fail while it exists.
 *
 * `FaultRule fail("connect", ECONNREFUSED)` fails the next connect(), `FaultRule fail("send", EPIPE, 3, 2)`
 * the third and the fourth send() from now on. The real function is not called, except for close(), whose
 * descriptor is closed as Linux does it whatever close() returns. Of several matching rules the oldest one
 * wins.
 */
class FaultRule : Detail::Registered<Detail::FaultState> {
public:
    /** As number of times: every call from the n-th one. */
    static constexpr int always = -1;

    /**
     * With @p tid it is for that thread from the first moment; onlyThread() leaves a moment in which it is
     * for all.
     */
    FaultRule(const std::string& function, int errorNumber, int nth = 1, int times = 1, pid_t tid = 0);

    /** Counts and fails only calls whose first argument is @p fd. */
    FaultRule& onlyDescriptor(int fd);

    /** Counts and fails only calls of the thread with this kernel number. */
    FaultRule& onlyThread(pid_t tid);

    /**
     * Returns @p result instead of -1; with an error number of 0 errno stays as it was.
     *
     * Needed for usleep() and clock_nanosleep() (0 makes them take no time) and for the *_r functions, which
     * return an error number; the rule's own error number is then what the caller finds in the resolver's
     * error variable. For ioctl() it is the number that the call asks for.
     */
    FaultRule& returning(long result);

    /** How many calls the rule has counted, failed ones included. */
    int calls() const;

    /** How many calls have been failed. */
    int failures() const;
};

/** One recorded call. */
struct CallRecord {
    /** The function's name; a `__x_chk` variant is recorded as x. */
    std::string name;
    /** The first argument if it is an int: mostly the descriptor. For poll() the first entry's descriptor. */
    int argument = -1;
    /**
     * Further integer arguments, 0 if there are none: socket (type, protocol), listen (backlog), send, recv,
     * sendto, recvfrom, read and write (length, flags), setsockopt and getsockopt (level, name), shutdown
     * (how), chmod and fchmod (mode), chown (user, group), fcntl (command, argument), poll (entries,
     * time-out), accept4 (flags), eventfd (count, flags), usleep (microseconds), clock_nanosleep
     * (flags, nanoseconds), gethostbyaddr_r (family, length).
     */
    long second = 0;
    long third = 0;
    /** The path given to unlink, chmod and chown, the name given to getgrnam_r and gethostbyname_r. */
    std::string path;
    long result = 0;
    /** errno if the call failed, otherwise 0. */
    int error = 0;
    pid_t tid = 0;
};

/** Records the calls, in the order of their returns, which are made while it exists. */
class CallTrace : Detail::Registered<Detail::TraceState> {
public:
    enum class Scope { CallingThread, AllThreads };

    explicit CallTrace(Scope scope = Scope::AllThreads);

    std::vector<CallRecord> records() const;

    /** The records of one function. */
    std::vector<CallRecord> records(const std::string& function) const;

    /** How many calls of one function there were. */
    int calls(const std::string& function) const;

    /** The functions' names, for ElementsAre(). */
    std::vector<std::string> names() const;

    void clear();
};

/** What one scripted recv() does. */
struct RecvStep {
    ssize_t result = 0;
    int error = 0;
    std::string data;

    /** Returns the bytes; what the caller has no room for is returned by the following calls. */
    static RecvStep bytes(const std::string& data);
    /** Returns -1 with errno. */
    static RecvStep failure(int error);
    /** Returns 0. */
    static RecvStep end();
};

/** How recv() was called. */
struct RecvRequest {
    int fd = -1;
    const void* buffer = nullptr;
    std::size_t length = 0;
    int flags = 0;
};

/**
 * Replaces the results of recv() while it exists.
 *
 * Every call, one with MSG_PEEK included, takes a step. After the last step the real recv() is called.
 */
class RecvScript : Detail::Registered<Detail::ScriptState> {
public:
    explicit RecvScript(std::vector<RecvStep> steps, int fd = anyDescriptor);

    /** All matching calls, those after the end of the script included. */
    std::vector<RecvRequest> requests() const;

    /** Whether all steps have been taken. */
    bool exhausted() const;
};

/** Makes every send() and recv() deal with no more than @p maximum bytes at a time while it exists. */
class TransferLimit : Detail::Registered<Detail::LimitState> {
public:
    explicit TransferLimit(std::size_t maximum, int fd = anyDescriptor);
};

/**
 * Runs @p action in the calling thread before the next @p times calls of the function.
 *
 * The action's own calls are neither counted nor failed. It must not throw.
 */
class CallHook : Detail::Registered<Detail::HookState> {
public:
    CallHook(const std::string& function, std::function<void()> action, int times = 1);
};

/** Holds the next call of the function up, before it is made, until the test lets it go on or this ends. */
class HeldCall {
public:
    explicit HeldCall(const std::string& function) : m_hook(function, [this] { m_checkpoint.pass(); }) {}

    ~HeldCall() { open(); }

    /** Waits until somebody makes the call; false if nobody did in time. */
    bool awaitReached() { return m_checkpoint.awaitReached(); }

    /** Lets the call go on. */
    void open() { m_checkpoint.open(); }

private:
    Checkpoint m_checkpoint;
    CallHook m_hook;
};

} // namespace VornTest

#endif
