// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_RESULTTELLER_H
#define VORNNOTIFY_RESULTTELLER_H

#include "DispatchBook.h"
#include "QuietThread.h"

namespace VornNet {

/**
 * Calls a dispatcher's result handler, on a thread of its own: one call at a time, in the order of the
 * outcomes. A handler that takes its time delays nothing but the next result.
 */
class ResultTeller {
public:
    /** Starts the thread, if there is a handler. @throws std::system_error, std::bad_alloc */
    ResultTeller(const VornDispatcher::Options& options, DispatchBook& book);

    /** As end(). */
    ~ResultTeller();

    ResultTeller(const ResultTeller&) = delete;
    ResultTeller& operator=(const ResultTeller&) = delete;

    /** Ends when every result there is has been told. */
    void end();

    /** @return whether the caller is the handler. */
    bool isCaller() const { return m_thread.isCurrent(); }

private:
    void run();
    void tell(const VornDispatcher::Result& result) const;

    const VornDispatcher::ResultHandler m_handler;
    DispatchBook& m_book;
    QuietThread m_thread;
};

} // namespace VornNet

#endif
