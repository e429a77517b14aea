// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkCaller.h"

#include "HandlerCall.h"

#include <Probe.h>
#include <VornConnection.h>
#include <VornCriticalSection.h>
#include <VornNotificationCallback.h>

namespace VornNet {

namespace {

constexpr const char* cThrown = "VornSteadySink::run: a callback threw: ";

using Statistics = SinkLine::Statistics;

/** Counts a notification when its call is over, also when the callback has ended the thread. */
class Call {
public:
    Call(SinkLine& line, const IncomingNotification& notification)
        : m_line(line), m_notification(notification), m_nBytes(notification.size()) {}

    ~Call() { m_line.finish(m_notification, m_nBytes, counter); }

    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    SinkLine::Counter counter = nullptr;

private:
    SinkLine& m_line;
    const IncomingNotification& m_notification;
    const std::size_t m_nBytes;
};

} // namespace

SinkCaller::SinkCaller(VornCallbackContainer& container, SinkLine& line)
    : m_container(container), m_line(line) {}

void SinkCaller::run() {
    while (const std::unique_ptr<IncomingNotification> spNext = m_line.next())
        serve(*spNext);
}

void SinkCaller::serve(IncomingNotification& notification) {
    SinkLine::Counter counter = nullptr;
    {
        Call running(m_line, notification);
        counter = running.counter = call(notification);
    }
    // Counted before the sender sees it.
    if (counter != &Statistics::nUnknown)
        notification.confirm();
}

SinkLine::Counter SinkCaller::call(IncomingNotification& notification) {
    SinkLine::Counter counter = &Statistics::nUnknown;
    const bool hasReturned = callHandler(VornLogging::cError, cThrown, [&] {
        const VornCriticalSection lock(m_container.mutex(), true);
        VornSmartPointer<VornNotificationCallback> spCallback = m_container.lookup(notification.callbackId());
        if (spCallback == nullptr)
            return;
        VornSmartPointer<VornConnection> spConnection = static_cast<ReceivedContent*>(notification.content());
        notification.content() = nullptr; // so that it lives no longer than the callback wants it
        VORN_PROBE(callback__begun, notification.callbackId());
        spCallback->callback(spConnection);
        VORN_PROBE(callback__done, notification.callbackId());
        counter = &Statistics::nDelivered;
    });
    return hasReturned ? counter : &Statistics::nFailed;
}

} // namespace VornNet
