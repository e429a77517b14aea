// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TimedPoll.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <system_error>

namespace VornNet {

namespace {

constexpr std::uint64_t cTimer = 0;
constexpr std::uint64_t cSocket = 1;

int control(int poll, int operation, int fd, std::uint32_t events, std::uint64_t what) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = what;
    return System::epollControl(poll, operation, fd, &event) == -1 ? errno : 0;
}

} // namespace

TimedPoll::TimedPoll()
    : m_poll(System::epollCreate(EPOLL_CLOEXEC)),
      m_timer(System::timerfdCreate(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    int error = m_poll.isOpen() && m_timer.isOpen() ? 0 : errno;
    if (error == 0)
        error = control(m_poll.number(), EPOLL_CTL_ADD, m_timer.number(), EPOLLIN, cTimer);
    if (error != 0)
        throw std::system_error(error, std::generic_category());
}

int TimedPoll::watch(int fd, std::uint32_t events, bool isNew) const {
    return control(m_poll.number(), isNew ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, events, cSocket);
}

void TimedPoll::unwatch(int fd) const {
    control(m_poll.number(), EPOLL_CTL_DEL, fd, 0, cSocket);
}

std::uint32_t TimedPoll::wait(bool isWaiting) const {
    epoll_event events[2]{};
    const int count = System::epollWait(m_poll.number(), events, 2, isWaiting ? -1 : 0);
    std::uint32_t happened = 0;
    for (int i = 0; i < count; ++i)
        happened |= events[i].data.u64 == cSocket ? events[i].events : 0;
    return happened;
}

void TimedPoll::wakeAt(TimePoint time) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const TimePoint now = std::chrono::steady_clock::now();
    // A timer that ends too early costs a look; one that is set anew with each packet costs a call for each.
    if (m_isWoken || (m_armedFor <= time && now < m_armedFor))
        return;
    m_armedFor = time;
    arm(time == TimePoint::max()
            ? std::chrono::nanoseconds(0)
            : std::max<std::chrono::nanoseconds>(time - now, std::chrono::nanoseconds(1)));
}

void TimedPoll::wakeUp() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isWoken = true;
    m_armedFor = TimePoint::min();
    arm(std::chrono::nanoseconds(1));
}

void TimedPoll::answerWakeUp() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isWoken = false;
}

void TimedPoll::end(bool isPolled) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_timer.isOpen())
        unwatch(m_timer.number());
    m_timer.reset();
    if (!isPolled)
        m_poll.reset();
}

/** 0 takes the time away. */
void TimedPoll::arm(std::chrono::nanoseconds span) {
    if (!m_timer.isOpen())
        return;
    const auto whole = std::chrono::floor<std::chrono::seconds>(span);
    itimerspec time{};
    time.it_value.tv_sec = whole.count();
    time.it_value.tv_nsec = (span - whole).count();
    System::timerfdSettime(m_timer.number(), 0, &time);
}

} // namespace VornNet
