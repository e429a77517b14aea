// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_STEADYSINKPEER_H
#define VORNTEST_STEADYSINKPEER_H

#include "NotificationPeer.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <VornSteadySink.h>

/**
 * @file
 * What the tests of steady sinks have in common: clients that remember, and senders of plain POSIX calls.
 */
namespace VornTest {

using SteadyOptions = VornNet::VornSteadySink::Options;
using SteadyStatistics = VornNet::VornSteadySink::Statistics;

/** The options for a sink of that kind at an address of its own, perhaps with one of them changed. */
SteadyOptions optionsFor(Kind kind, const std::function<void(SteadyOptions&)>& change = {});

/** A steady sink with one callback, whose id is 0. */
class SteadyClient {
public:
    explicit SteadyClient(const SteadyOptions& options, RecordingCallback::Action action = {});

    VornNet::VornSteadySink* operator->() const { return m_sink.get(); }

    std::string address() const { return m_sink->getCallbackAddress(); }

    SteadyStatistics statistics() const { return m_sink->statistics(); }

    /** Registers another callback. */
    CallbackPointer add(RecordingCallback::Action action = {}) const;

    const CallbackPointer& callback() const { return m_callback; }

    /** The contents of the callback's notifications; a test failure unless there are so many in time. */
    std::vector<std::string> awaitContents(int count) const;

    /** Waits until one of the numbers is @p value. */
    template <typename Number>
    bool await(Number SteadyStatistics::*number, Number value) const {
        return awaitCondition([&] { return statistics().*number == value; });
    }

    void destroy() { m_sink.reset(); }

private:
    std::unique_ptr<VornNet::VornSteadySink> m_sink;
    CallbackPointer m_callback;
};

/** Ends the sending side. */
void endSending(int fd);

/** Connects, and sends the beginning of a notification for id 0. */
UniqueFd beginNotification(const std::string& address, std::string_view content);

/** Sends a whole notification for id @p handle and ends the sending side. */
UniqueFd sendNotification(const std::string& address, std::string_view content, long handle = 0);

/** How a connection has ended for its sender: "end", "reset", or what went wrong. */
std::string endingOf(int fd);

/** Sends a whole notification and waits for its end. */
std::string deliverTo(const std::string& address, std::string_view content, long handle = 0);

/** Waits until the receiver has taken what was sent over a pipe. */
bool awaitTaken(int fd);

/** The code of what the constructor throws; its text must be the one given. 0 when nothing is thrown. */
int codeOf(const SteadyOptions& options, const std::string& text);

inline const std::string cInvalidOption = "VornSteadySink::VornSteadySink: invalid option.";
inline const std::string cOpenFailed = "VornSteadySink::VornSteadySink: failed to open server.";
inline const std::string cStartFailed = "VornSteadySink::VornSteadySink: failed to start.";

} // namespace VornTest

#endif
