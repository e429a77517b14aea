// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "EventPoll.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace VornNet {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

/** Waits until there is something to be read, or for @p span, which may be over. */
void awaitReadable(int fd, nanoseconds span) {
    if (span <= 0ns)
        return;
    const auto whole = std::chrono::floor<seconds>(span);
    pollfd entry{fd, POLLIN, 0};
    System::ppoll(&entry, 1, {static_cast<time_t>(whole.count()), static_cast<long>((span - whole).count())});
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
    constexpr milliseconds cLongest = 24h;
    int count = 0;
    if (until == Clock::time_point::max()) {
        count = await(-1);
    } else if (const auto whole = std::chrono::floor<milliseconds>(until - Clock::now()); whole > 0ms) {
        count = await(static_cast<int>(std::min(whole, cLongest).count()));
    }
    if (count == 0) {
        // epoll_wait(2) knows only whole milliseconds, which are too long for a pause.
        awaitReadable(m_poll.number(), until - Clock::now());
        count = await(0);
    }
    epoll_event* end = std::remove_if(m_events, m_events + std::max(count, 0),
                                      [](const epoll_event& event) { return event.data.ptr == nullptr; });
    return {m_events, end};
}

int EventPoll::await(int milliseconds) {
    return System::epollWait(m_poll.number(), m_events, cMostEvents, milliseconds);
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
