// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Pacing.h"

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/socket.h>

namespace Bench {

namespace {

std::atomic<Pacing*> g_watched{nullptr};
Road g_road;
pthread_t g_sender;

void change(int semaphore, short difference) {
    sembuf operation{0, difference, 0};
    checked(::semop(semaphore, &operation, 1), "semop");
}

void aboutToWait(Road road) {
    Pacing* pacing = g_watched.load(std::memory_order_acquire);
    if (pacing != nullptr && road == g_road && !pthread_equal(pthread_self(), g_sender))
        pacing->ready();
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

Pacing::Pacing()
    : m_semaphore(static_cast<int>(checked(::semget(IPC_PRIVATE, 1, 0600), "semget"))), m_time(Clock::now()) {
}

Pacing::~Pacing() {
    ::semctl(m_semaphore, 0, IPC_RMID);
}

void Pacing::ready() {
    m_time.store(Clock::now(), std::memory_order_release);
    change(m_semaphore, 1);
}

Clock::time_point Pacing::awaitReady() {
    change(m_semaphore, -1);
    return m_time.load(std::memory_order_acquire);
}

ServerWatch::ServerWatch(Road road, Pacing& pacing) {
    g_road = road;
    g_sender = pthread_self();
    g_watched.store(&pacing, std::memory_order_release);
}

ServerWatch::~ServerWatch() {
    g_watched.store(nullptr, std::memory_order_release);
}

} // namespace Bench

// The libraries' calls come here, since a program's functions go before those of the C library. A pipe server
// waits in select() or poll() before it accepts.
extern "C" {

int accept(int fd, sockaddr* address, socklen_t* length) {
    static const auto real = Bench::next<decltype(&accept)>("accept");
    Bench::aboutToWait(Bench::Road::tcp);
    return real(fd, address, length);
}

int select(int limit, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    static const auto real = Bench::next<decltype(&select)>("select");
    Bench::aboutToWait(Bench::Road::pipe);
    return real(limit, readable, writable, exceptional, timeout);
}

int poll(pollfd* entries, nfds_t count, int milliseconds) {
    static const auto real = Bench::next<decltype(&poll)>("poll");
    Bench::aboutToWait(Bench::Road::pipe);
    return real(entries, count, milliseconds);
}

ssize_t recvfrom(int fd, void* data, size_t size, int flags, sockaddr* address, socklen_t* length) {
    static const auto real = Bench::next<decltype(&recvfrom)>("recvfrom");
    Bench::aboutToWait(Bench::Road::udp);
    return real(fd, data, size, flags, address, length);
}
}
