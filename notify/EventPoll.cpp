// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "EventPoll.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace VornNet {

namespace {

using std::chrono::ceil;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

timespec timespecOf(nanoseconds span) {
    const auto whole = std::chrono::floor<seconds>(span);
    return {static_cast<time_t>(whole.count()), static_cast<long>((span - whole).count())};
}

} // namespace

EventPoll::EventPoll()
    : m_poll(OwnedDescriptor::opened(System::epollCreate(EPOLL_CLOEXEC))),
      m_wakeUp(OwnedDescriptor::opened(System::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {
    // An edge is told for each write, so the count never has to be read.
    if (const int nError = control(EPOLL_CTL_ADD, m_wakeUp.number(), EPOLLIN | EPOLLET, nullptr); nError != 0)
        throw std::system_error(nError, std::generic_category());
}

std::span<const epoll_event> EventPoll::wait(Clock::time_point until) {
    int count = -1;
    if (until == Clock::time_point::max()) {
        count = System::epollWait(m_poll.number(), m_events, cMostEvents, -1);
    } else {
        const nanoseconds left = std::max<nanoseconds>(until - Clock::now(), nanoseconds(0));
        const timespec timeout = timespecOf(left);
        count = System::epollWait(m_poll.number(), m_events, cMostEvents, &timeout);
        // Kernels before 5.11, and sandboxes, know only whole milliseconds.
        if (count == -1 && errno != EINTR)
            count = System::epollWait(
                m_poll.number(), m_events, cMostEvents,
                static_cast<int>(std::min(ceil<milliseconds>(left), milliseconds(1000)).count()));
    }
    epoll_event* end = std::remove_if(m_events, m_events + std::max(count, 0),
                                      [](const epoll_event& event) { return event.data.ptr == nullptr; });
    return {m_events, end};
}

void EventPoll::wakeUp() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = System::write(m_wakeUp.number(), &one, sizeof one);
}

int EventPoll::control(int operation, int fd, std::uint32_t events, void* data) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = data;
    return System::epollControl(m_poll.number(), operation, fd, &event) == -1 ? errno : 0;
}

} // namespace VornNet
