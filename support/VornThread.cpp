// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornThread.h"

#include "Cancellation.h"
#include "ForkHandlers.h"
#include "LogRecord.h"
#include "SystemCalls.h"
#include "VornException.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

namespace VornSupport {

namespace {

constexpr std::size_t cLongestSystemName = 15; // pthread_setname_np(3) refuses more

void logEscaped(const VornString& name, const VornString& text, int code) {
    logRecord(VornLogging::cError, "VornThread::run: exception ended thread '", name, "': ", text,
              " (code=", code, ")");
}

} // namespace

struct VornThread::State : RenewedInChild<VornThread::State> {
    VornString name;
    mutable std::mutex lock;
    std::condition_variable ended;
    std::thread thread;
    bool running = false;
    bool stopRequested = false;
    VornSmartPointer<VornWorkInformation> workInfo;

    explicit State(const VornString& sName) : name(sName) {}

    /** The thread is the parent's: here it counts as ended. The one that forks goes on, and is to end soon.
     */
    void startAfresh() {
        makeAnew(lock);
        makeAnew(ended);
        makeAnew(thread);
        running = false;
        stopRequested = true;
    }

    void setEnded() {
        const std::lock_guard guard(lock);
        running = false;
        // Under the lock: the one that waits may destroy this as soon as it gets the lock.
        ended.notify_all();
    }

    /** The whole life of the thread. Only cancellation leaves it, as it must. */
    void execute(VornThread& owner) {
        struct EndMark {
            State& state;

            ~EndMark() { state.setEnded(); }
        };

        const EndMark mark{*this};
        ::pthread_setname_np(::pthread_self(), name.substr(0, cLongestSystemName).c_str());
        try {
            owner.run();
        } catch (const VornException& e) {
            logEscaped(name, e.getText(), e.getCode());
        } catch (const std::exception& e) {
            logEscaped(name, e.what(), 0);
        } catch (...) {
            if (isCancellation())
                throw;
            logEscaped(name, "exception of unknown type", 0);
        }
    }

    void joinIfEnded() {
        if (thread.joinable())
            thread.join();
    }
};

VornThread::VornThread(const VornString& sName) : m_spState(std::make_shared<State>(sName)) {}

VornThread::~VornThread() {
    const CancellationOff noCancellation;
    VornThread::stop();
    if (isOwnThread())
        m_spState->thread.detach(); // the last reference was let go by run(): it cannot wait for itself
    else
        m_spState->joinIfEnded();
}

void VornThread::notify(const VornNotification& notification) {
    VornCollaborator::notify(notification);
}

void VornThread::start() {
    const std::lock_guard lock(m_spState->lock);
    if (m_spState->running)
        return;
    m_spState->joinIfEnded();
    m_spState->stopRequested = false;
    m_spState->running = true;
    try {
        m_spState->thread = std::thread([this, state = m_spState] { state->execute(*this); });
    } catch (const std::system_error& e) {
        m_spState->running = false;
        throw VornException("VornThread::start: failed to create thread.", e.code().value());
    } catch (...) {
        m_spState->running = false;
        throw;
    }
}

void VornThread::stop() {
    const std::lock_guard lock(m_spState->lock);
    m_spState->stopRequested = true;
}

void VornThread::setWorkInfo(VornSmartPointer<VornWorkInformation> spWorkInfo) {
    const std::lock_guard lock(m_spState->lock);
    m_spState->workInfo = spWorkInfo;
}

bool VornThread::wait(int nMilliSec) {
    std::unique_lock lock(m_spState->lock);
    const auto hasEnded = [this] { return !m_spState->running; };
    if (nMilliSec < 0) {
        m_spState->ended.wait(lock, hasEnded);
        return true;
    }
    return m_spState->ended.wait_for(lock, std::chrono::milliseconds(nMilliSec), hasEnded);
}

void VornThread::setPriority(t_Priority /*priority*/) {}

int VornThread::run() {
    VornSmartPointer<VornWorkInformation> workInfo;
    {
        const std::lock_guard lock(m_spState->lock);
        workInfo = m_spState->workInfo;
    }
    return workInfo == nullptr ? 0 : run(*workInfo);
}

int VornThread::run(VornWorkInformation& /*workInfo*/) {
    return 0;
}

bool VornThread::isStopRequested() const {
    const std::lock_guard lock(m_spState->lock);
    return m_spState->stopRequested;
}

bool VornThread::isOwnThread() const {
    const std::lock_guard lock(m_spState->lock);
    return m_spState->thread.get_id() == std::this_thread::get_id();
}

} // namespace VornSupport
