// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_CONFIRMATION_H
#define VORNTOOL_CONFIRMATION_H

#include <VornDispatcher.h>

#include <chrono>
#include <mutex>

namespace VornTool {

/**
 * Sends through a dispatcher, and prints what became of each notification when it is known.
 *
 * What has no outcome when it is destroyed is stopped, and printed so.
 */
class Confirmation {
public:
    /** @param timeLimit of each notification; 0 for the dispatcher's own */
    Confirmation(std::chrono::milliseconds timeLimit, bool bJson);

    /** @throws ToolError for an address that a dispatcher does not take */
    void post(VornNet::VornProxyDependent& proxy, const VornNet::VornNotification& notification);

    /** Waits for the outcomes, @p limit at a time. @return whether all are known */
    bool await(std::chrono::milliseconds limit) { return m_dispatcher.flush(limit); }

    /** Gives up what has no outcome. */
    void stop() { m_dispatcher.stop(std::chrono::milliseconds(0)); }

    /** @return the program's exit status, once all outcomes are known. */
    int exitStatus() const;

private:
    VornNet::VornDispatcher::Options optionsFor(std::chrono::milliseconds timeLimit);
    void print(const VornNet::VornDispatcher::Result& result);

    const bool m_bJson;
    mutable std::mutex m_mutex;
    VornNet::VornDispatcher::Result m_lastFailure; // guarded by m_mutex
    VornNet::VornDispatcher m_dispatcher;          // last: its handler uses the others
};

} // namespace VornTool

#endif
