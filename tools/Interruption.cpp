// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Interruption.h"

#include "ExitStatus.h"
#include "Output.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace VornTool {

namespace {

constexpr int cStop = -1;
constexpr int cTimeout = 0;

sigset_t handledSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

} // namespace

void Interruption::blockSignals() {
    // Taken even where they are ignored, as a shell does it for a job in the background: somebody who sends
    // the signal to this very process means it.
    const sigset_t signals = handledSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

Interruption::Interruption(std::chrono::milliseconds grace, std::chrono::milliseconds limit)
    : m_grace(grace), m_limit(limit) {
    const sigset_t signals = handledSignals();
    m_signals = ::signalfd(-1, &signals, SFD_CLOEXEC);
    m_stop = ::eventfd(0, EFD_CLOEXEC);
    if (m_signals == -1 || m_stop == -1)
        throw ToolError(exitFailed, std::string("cannot wait for signals: ") + std::strerror(errno));
    m_thread = std::thread([this] { run(); });
}

Interruption::~Interruption() {
    const std::uint64_t one = 1;
    while (::write(m_stop, &one, sizeof one) == -1 && errno == EINTR) {
    }
    m_thread.join();
    ::close(m_signals);
    ::close(m_stop);
}

void Interruption::onRequest(std::function<void()> action) {
    const std::lock_guard lock(m_mutex);
    m_action = std::move(action);
    if (isRequested())
        m_action();
}

void Interruption::onForcedEnd(std::function<void()> report) {
    const std::lock_guard lock(m_mutex);
    m_forcedEnd = std::move(report);
}

bool Interruption::sleepFor(std::chrono::milliseconds time) {
    std::unique_lock lock(m_mutex);
    return !m_changed.wait_for(lock, time, [this] { return isRequested(); });
}

void Interruption::wake() {
    const std::lock_guard lock(m_mutex);
    m_woken = true;
    m_changed.notify_all();
}

void Interruption::awaitChange(std::chrono::milliseconds time) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, time, [this] { return isRequested() || m_woken; });
    m_woken = false;
}

int Interruption::nextEvent(int timeout) const {
    pollfd events[2] = {{m_stop, POLLIN, 0}, {m_signals, POLLIN, 0}};
    const int count = ::poll(events, 2, timeout);
    if (count == 0)
        return cTimeout;
    if (count < 0 || events[0].revents != 0)
        return cStop;
    signalfd_siginfo information{};
    if (::read(m_signals, &information, sizeof information) != sizeof information)
        return cStop;
    return static_cast<int>(information.ssi_signo);
}

void Interruption::request(int status) {
    const std::lock_guard lock(m_mutex);
    m_status = status;
    m_changed.notify_all();
    if (m_action)
        m_action();
}

bool Interruption::isEndedInTime() {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds cPause(20);
    // A terminal or a script signals the process and its group: that is still one request.
    const auto secondRequest = Clock::now() + std::min(m_grace, std::chrono::milliseconds(200));
    const auto limit = Clock::now() + m_grace;
    while (Clock::now() < limit) {
        const int event = nextEvent(static_cast<int>(cPause.count()));
        if (event == cStop || (event != cTimeout && Clock::now() > secondRequest))
            return event == cStop;
        // Once is not enough: a server that was not waited on when it was closed opens with the next wait.
        const std::lock_guard lock(m_mutex);
        if (m_action)
            m_action();
    }
    return false;
}

void Interruption::run() {
    const int event = nextEvent(m_limit.count() > 0 ? static_cast<int>(m_limit.count()) : -1);
    if (event == cStop)
        return;
    if (event == cTimeout) {
        Output::error("no answer within " + std::to_string(m_limit.count()) + " ms");
        request(exitUnreachable);
    } else {
        request(128 + event);
    }
    if (isEndedInTime())
        return;
    const std::lock_guard lock(m_mutex);
    if (m_forcedEnd)
        m_forcedEnd();
    ::_exit(m_status);
}

} // namespace VornTool
