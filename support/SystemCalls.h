// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_SYSTEMCALLS_H
#define VORNSUPPORT_SYSTEMCALLS_H

/** @file
 *  Every call of the libraries into the operating system, one line each and nothing but the call.
 *
 *  It is the one place to look at for what the libraries ask of the kernel, and the one place that a fault
 *  injector has to know. Not installed. The functions are not noexcept: most are thread cancellation points,
 *  and cancellation unwinds through them.
 */

#include <csignal>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/types.h>
#include <unistd.h>

namespace VornSupport::System {

// Sockets.

inline int socket(int domain, int type, int protocol) {
    return ::socket(domain, type, protocol);
}

inline int bind(int fd, const sockaddr* address, socklen_t length) {
    return ::bind(fd, address, length);
}

inline int listen(int fd, int backlog) {
    return ::listen(fd, backlog);
}

inline int accept(int fd, sockaddr* address, socklen_t* length) {
    return ::accept(fd, address, length);
}

inline int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    return ::accept4(fd, address, length, flags);
}

inline int connect(int fd, const sockaddr* address, socklen_t length) {
    return ::connect(fd, address, length);
}

inline ssize_t send(int fd, const void* data, size_t size, int flags) {
    return ::send(fd, data, size, flags);
}

inline ssize_t recv(int fd, void* data, size_t size, int flags) {
    return ::recv(fd, data, size, flags);
}

inline ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                      socklen_t length) {
    return ::sendto(fd, data, size, flags, address, length);
}

inline ssize_t recvfrom(int fd, void* data, size_t size, int flags, sockaddr* address, socklen_t* length) {
    return ::recvfrom(fd, data, size, flags, address, length);
}

inline ssize_t recvmsg(int fd, msghdr* message, int flags) {
    return ::recvmsg(fd, message, flags);
}

inline int setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    return ::setsockopt(fd, level, option, value, length);
}

inline int getsockopt(int fd, int level, int option, void* value, socklen_t* length) {
    return ::getsockopt(fd, level, option, value, length);
}

inline int getsockname(int fd, sockaddr* address, socklen_t* length) {
    return ::getsockname(fd, address, length);
}

inline int getpeername(int fd, sockaddr* address, socklen_t* length) {
    return ::getpeername(fd, address, length);
}

inline int shutdown(int fd, int how) {
    return ::shutdown(fd, how);
}

// Descriptors and files.

inline int close(int fd) {
    return ::close(fd);
}

inline int pipe(int ends[2]) {
    return ::pipe(ends);
}

inline ssize_t read(int fd, void* data, size_t size) {
    return ::read(fd, data, size);
}

inline ssize_t write(int fd, const void* data, size_t size) {
    return ::write(fd, data, size);
}

inline int fstat(int fd, struct stat* file) {
    return ::fstat(fd, file);
}

inline int fcntl(int fd, int command, int argument) {
    return ::fcntl(fd, command, argument);
}

inline int eventfd(unsigned int count, int flags) {
    return ::eventfd(count, flags);
}

inline int epollCreate(int flags) {
    return ::epoll_create1(flags);
}

inline int epollControl(int epoll, int operation, int fd, epoll_event* event) {
    return ::epoll_ctl(epoll, operation, fd, event);
}

inline int epollWait(int epoll, epoll_event* events, int count, int milliseconds) {
    return ::epoll_wait(epoll, events, count, milliseconds);
}

inline int ioctl(int fd, unsigned long request, int* value) {
    return ::ioctl(fd, request, value);
}

inline int select(int limit, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    return ::select(limit, readable, writable, exceptional, timeout);
}

inline int poll(pollfd* entries, nfds_t count, int milliseconds) {
    return ::poll(entries, count, milliseconds);
}

inline int ppoll(pollfd* entries, nfds_t count, const timespec& timeout) {
    return ::ppoll(entries, count, &timeout, nullptr);
}

inline int open(const char* path, int flags, mode_t mode) {
    return ::open(path, flags, mode);
}

inline ssize_t pread(int fd, void* data, size_t size, off_t offset) {
    return ::pread(fd, data, size, offset);
}

inline ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    return ::pwrite(fd, data, size, offset);
}

inline int flock(int fd, int operation) {
    return ::flock(fd, operation);
}

inline int ftruncate(int fd, off_t size) {
    return ::ftruncate(fd, size);
}

inline int fallocate(int fd, off_t offset, off_t size) {
    return ::posix_fallocate(fd, offset, size);
}

inline void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
    return ::mmap(address, size, protection, flags, fd, offset);
}

inline int munmap(void* address, size_t size) {
    return ::munmap(address, size);
}

inline int msync(void* address, size_t size, int flags) {
    return ::msync(address, size, flags);
}

inline int timerfdCreate(clockid_t clock, int flags) {
    return ::timerfd_create(clock, flags);
}

inline int timerfdSettime(int fd, int flags, const itimerspec* time) {
    return ::timerfd_settime(fd, flags, time, nullptr);
}

inline int unlink(const char* path) {
    return ::unlink(path);
}

inline int lstat(const char* path, struct stat* status) {
    return ::lstat(path, status);
}

inline int renameat2(int from, const char* path, int to, const char* newPath, unsigned int flags) {
    return ::renameat2(from, path, to, newPath, flags);
}

inline int chmod(const char* path, mode_t mode) {
    return ::chmod(path, mode);
}

inline int fchmod(int fd, mode_t mode) {
    return ::fchmod(fd, mode);
}

inline int chown(const char* path, uid_t user, gid_t group) {
    return ::chown(path, user, group);
}

// Resolver and account data base; the re-entrant forms.

inline int gethostbyname(const char* name, hostent* entry, char* buffer, size_t size, hostent** result,
                         int* error) {
    return ::gethostbyname_r(name, entry, buffer, size, result, error);
}

inline int gethostbyaddr(const void* address, socklen_t length, int family, hostent* entry, char* buffer,
                         size_t size, hostent** result, int* error) {
    return ::gethostbyaddr_r(address, length, family, entry, buffer, size, result, error);
}

inline int getgrnam(const char* name, group* entry, char* buffer, size_t size, group** result) {
    return ::getgrnam_r(name, entry, buffer, size, result);
}

// Process, threads and time.

inline uid_t getuid() {
    return ::getuid();
}

inline pid_t getpid() {
    return ::getpid();
}

inline pid_t gettid() {
    return ::gettid();
}

inline int getrlimit(__rlimit_resource_t resource, rlimit* limits) {
    return ::getrlimit(resource, limits);
}

inline int prctl(int option, unsigned long value) {
    return ::prctl(option, value);
}

inline ssize_t getrandom(void* data, size_t size, unsigned int flags) {
    return ::getrandom(data, size, flags);
}

inline int atFork(void (*before)(), void (*afterInParent)(), void (*afterInChild)()) {
    return ::pthread_atfork(before, afterInParent, afterInChild);
}

inline int setCancelState(int state, int* previous) {
    return ::pthread_setcancelstate(state, previous);
}

inline int schedYield() {
    return ::sched_yield();
}

inline int usleep(useconds_t microseconds) {
    return ::usleep(microseconds);
}

inline int clockGettime(clockid_t clock, timespec* now) {
    return ::clock_gettime(clock, now);
}

inline int clockNanosleep(clockid_t clock, int flags, const timespec* time, timespec* remaining) {
    return ::clock_nanosleep(clock, flags, time, remaining);
}

} // namespace VornSupport::System

#endif
