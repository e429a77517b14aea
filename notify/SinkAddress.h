// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SINKADDRESS_H
#define VORNNOTIFY_SINKADDRESS_H

#include "QuietThread.h"
#include "VornSteadySink.h"

#include <VornString.h>

#include <mutex>
#include <thread>

namespace VornNet {

/**
 * A sink's callback address, and the handler that is told when it changes.
 *
 * The handler talks to services and may take its time, so it is called on a thread of its own, which is there
 * only while there is something to tell.
 */
class SinkAddress {
public:
    /** @param sThreadName names the thread. @param handler may be empty */
    SinkAddress(const VornString& sThreadName, VornSteadySink::AddressHandler handler);

    /** Waits for a running handler. */
    ~SinkAddress();

    SinkAddress(const SinkAddress&) = delete;
    SinkAddress& operator=(const SinkAddress&) = delete;

    VornString get() const;

    /** Sets the first address, which the handler is not told. */
    void set(const VornString& sAddress);

    /** Sets another address; the handler is told by tell(). */
    void change(VornString&& sAddress) noexcept;

    /** Has the handler called if there is a change that it has not been told. To be called again and again:
     * there may be no thread to be had. */
    void tell();

    /** @return whether the caller is the handler. */
    bool isHandlerThread() const;

private:
    void run();
    void call(const VornString& sAddress);

    const VornString m_sThreadName;
    const VornSteadySink::AddressHandler m_handler;
    mutable std::mutex m_lock; // guards what follows
    VornString m_sAddress;
    bool m_isUntold = false;         // there is a change that the handler has not been told
    bool m_isTelling = false;        // the thread is at work
    std::thread::id m_handlerThread; // while it is at work
    QuietThread m_thread;            // the reading thread's and the destructor's
};

} // namespace VornNet

#endif
