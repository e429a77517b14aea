// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_EVENTPOSTER_H
#define VORNNOTIFY_EVENTPOSTER_H

#include "VornDispatcher.h"

#include <VornString.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string_view>

namespace VornNet {

/** Sends a publisher's events to callback sinks: a dispatcher, and what an event looks like there. */
class EventPoster {
public:
    /** Called on a thread of the dispatcher; it must not throw. */
    using Done = std::function<void(const VornDispatcher::Result& result)>;

    /** @throws VornException */
    EventPoster(const VornString& sName, const Done& done);

    // What post() returns instead of a ticket; tickets count from 1.
    static constexpr std::uint64_t cNoRoom = 0;                                            ///< not now
    static constexpr std::uint64_t cNeverFits = std::numeric_limits<std::uint64_t>::max(); ///< it is too long

    /**
     * Queues an event. @return the ticket of its result, or why there is none
     * @param sAddress a callback address
     */
    std::uint64_t post(const VornString& sAddress, long hCallback, std::uint64_t number,
                       std::string_view content);

    /** Gives up whatever waits for an address. */
    void cancel(const VornString& sAddress) { m_dispatcher.cancel(sAddress); }

private:
    VornDispatcher m_dispatcher;
};

} // namespace VornNet

#endif
