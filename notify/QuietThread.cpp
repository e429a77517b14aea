// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "QuietThread.h"

#include <SystemCalls.h>

#include <csignal>
#include <semaphore>
#include <utility>

namespace VornNet {

namespace {

constexpr std::size_t cLongestSystemName = 15; // pthread_setname_np(3) refuses more

thread_local bool t_bExiting = false;

/** exit() destroys what is local to the calling thread before anything that is static. */
struct ExitMark {
    ~ExitMark() { t_bExiting = true; }
};

/** Blocks all signals on the calling thread; a thread that is made meanwhile is born with them blocked. */
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_previous);
    }

    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }

    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_previous;
};

} // namespace

void QuietThread::start(const VornString& sName, std::function<void()> run) {
    std::binary_semaphore named(0);
    const SignalsBlocked blocked;
    m_thread = std::thread([this, &named, sName = sName.substr(0, cLongestSystemName), run = std::move(run)] {
        [[maybe_unused]] static thread_local const ExitMark mark;
        ::pthread_setname_np(::pthread_self(), sName.c_str());
        // A sleep takes 50 microseconds more than asked for unless the thread says that it minds.
        System::prctl(PR_SET_TIMERSLACK, 1);
        m_id = std::this_thread::get_id();
        named.release();
        run();
    });
    named.acquire();
}

bool QuietThread::isExiting() {
    return t_bExiting;
}

void QuietThread::join() {
    if (!m_thread.joinable())
        return;
    m_thread.join();
    m_id = std::thread::id(); // also of a thread that has been ended within run()
}

} // namespace VornNet
