// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_POSTEDNOTIFICATION_H
#define VORNNOTIFY_POSTEDNOTIFICATION_H

#include "TimerHeap.h"
#include "VornDispatcher.h"

#include <list>
#include <string>

namespace VornNet {

class AddressQueue;

/**
 * One notification from its post to the end of its result handler. As a timer it is due at its time limit.
 *
 * All that it needs is allocated when it is posted, the result's texts included: no outcome is lost for want
 * of memory.
 */
struct PostedNotification : Timer {
    PostedNotification() : Timer(Owner::notification) {}

    VornDispatcher::Result result;
    std::string sBytes; ///< handle and content
    Timer::Clock::time_point posted;
    Timer::Clock::time_point deadline;
    unsigned int nDoubtfulLimit = 0;
    AddressQueue* queue = nullptr;                    ///< where it waits
    std::list<PostedNotification>::iterator position; ///< in that queue
};

using PostedNotifications = std::list<PostedNotification>;

} // namespace VornNet

#endif
