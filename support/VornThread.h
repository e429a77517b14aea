// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTHREAD_H
#define VORNTHREAD_H

#include "VornCollaborator.h"
#include "VornObjectBase.h"
#include "VornSmartPointer.h"
#include "VornString.h"
#include "VornSupportExport.h"
#include "VornWorkInformation.h"

#include <memory>

namespace VornSupport {

/**
 * A named worker thread.
 *
 * A derived class implements run(). The object is constructed without a thread. start() starts one, which
 * executes run(). The thread ends when run() returns or throws; then it may be started again. stop() only
 * asks: run() must check isStopRequested(). The destructor of a derived class must end the thread (stop(),
 * then wait(-1)), because run() uses members that are destroyed there. The destructor of this class waits as
 * a last resort.
 *
 * Thread-safety: all operations may be called from any thread, start() and the destructor by the owner. The
 * state is guarded by a lock of its own.
 * Blocking: only wait() and the destructor.
 * Ownership: the operating system's thread belongs to the object. In the child of a fork it has ended.
 * Signals: the thread has the signal mask of the thread that called start().
 * Errors: start() throws VornException "VornThread::start: failed to create thread." with the error number.
 * An exception that leaves run() ends the thread, not the process: it is logged at level 1 with text and
 * code.
 */
class VORNSUPT_API VornThread : public VornCollaborator, public VornObjectBase {
public:
    /** Priorities; kept for programs that name them, without effect here. */
    enum t_Priority { cPriorityLow, cPriorityNormal, cPriorityHigh };

    /** Creates the object; start() starts the thread. @param sName names the thread in log records and, cut
     * to 15 bytes, in the system's thread lists. */
    VornThread(const VornString& sName);
    ~VornThread() override;

    VornThread(const VornThread&) = delete;
    VornThread& operator=(const VornThread&) = delete;

    /** As VornCollaborator::notify(). */
    void notify(const VornNotification& notification) override;

    /** Starts the thread; does nothing while it runs. */
    virtual void start();

    /** Asks run() to return; it neither waits nor interrupts anything. */
    virtual void stop();

    /** Gives the thread something to work on; the next start() passes it to run(VornWorkInformation&). */
    virtual void setWorkInfo(VornSmartPointer<VornWorkInformation> spWorkInfo);

    /**
     * Waits until the thread has ended.
     * @param nMilliSec the longest time to wait, in milliseconds; 0 only looks, negative waits without limit
     * @return true when it has ended or was never started, false when the time ran out
     */
    virtual bool wait(int nMilliSec);

    /** Accepted and without effect. */
    virtual void setPriority(t_Priority priority);

    /** The thread's body: run(VornWorkInformation&) when there is something to work on. @return a result code
     */
    virtual int run();

    /** The body for a thread with something to work on; here it does nothing. @return a result code */
    virtual int run(VornWorkInformation& workInfo);

protected:
    /** @return whether stop() was called since the last start(). */
    bool isStopRequested() const;

    /** @return whether the caller is this thread itself. */
    bool isOwnThread() const;

private:
    struct State;
    std::shared_ptr<State> m_spState; // shared with the running thread, which may outlive the object
};

} // namespace VornSupport

#endif
