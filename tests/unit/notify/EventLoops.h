// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_EVENTLOOPS_H
#define VORNTEST_EVENTLOOPS_H

#include <VornSubscriber.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <glib-unix.h>
#include <poll.h>
#include <sys/epoll.h>
#include <systemd/sd-event.h>

/**
 * @file
 * A subscriber in the event loops that programs use, as the manual shows them. Each loop ends when the
 * subscriber is stopped, which a handler may do.
 */
namespace VornTest {

using VornNet::VornSubscriber;

inline bool isStopped(const VornSubscriber& builds) {
    return builds.status().state == VornSubscriber::State::stopped;
}

inline void runWithPoll(VornSubscriber& builds) {
    pollfd entry{builds.getHandle(), POLLIN, 0};
    while (!isStopped(builds) && ::poll(&entry, 1, -1) == 1)
        builds.dispatch();
}

inline void runWithEpoll(VornSubscriber& builds) {
    const int loop = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &builds;
    ::epoll_ctl(loop, EPOLL_CTL_ADD, builds.getHandle(), &event);
    while (!isStopped(builds) && ::epoll_wait(loop, &event, 1, -1) == 1)
        static_cast<VornSubscriber*>(event.data.ptr)->dispatch();
    ::close(loop);
}

inline void runWithSystemd(VornSubscriber& builds) {
    sd_event* loop = nullptr;
    sd_event_new(&loop);
    const auto dispatch = [](sd_event_source* source, int, std::uint32_t, void* data) {
        auto* subscriber = static_cast<VornSubscriber*>(data);
        subscriber->dispatch();
        return isStopped(*subscriber) ? sd_event_exit(sd_event_source_get_event(source), 0) : 0;
    };
    sd_event_add_io(loop, nullptr, builds.getHandle(), EPOLLIN, dispatch, &builds);
    sd_event_loop(loop);
    sd_event_unref(loop);
}

inline void runWithGlib(VornSubscriber& builds) {
    const auto dispatch = [](gint, GIOCondition, gpointer data) -> gboolean {
        auto* subscriber = static_cast<VornSubscriber*>(data);
        subscriber->dispatch();
        return isStopped(*subscriber) ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
    };
    g_unix_fd_add(builds.getHandle(), G_IO_IN, dispatch, &builds);
    while (!isStopped(builds))
        g_main_context_iteration(nullptr, TRUE);
}

inline void awaitWithAsio(asio::posix::stream_descriptor& handle, VornSubscriber& builds) {
    handle.async_wait(asio::posix::descriptor_base::wait_read, [&](const asio::error_code& error) {
        builds.dispatch();
        if (!error && !isStopped(builds))
            awaitWithAsio(handle, builds);
    });
}

inline void runWithAsio(VornSubscriber& builds) {
    asio::io_context loop;
    asio::posix::stream_descriptor handle(loop, builds.getHandle());
    awaitWithAsio(handle, builds);
    loop.run();
    handle.release(); // the subscriber closes it
}

} // namespace VornTest

#endif
