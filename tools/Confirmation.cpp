// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Confirmation.h"

#include "ExitStatus.h"
#include "Output.h"

#include <VornException.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace VornTool {

using VornNet::VornDispatcher;
using VornSupport::VornException;
using Outcome = VornDispatcher::Outcome;

namespace {

bool isDone(Outcome outcome) {
    return outcome == Outcome::delivered || outcome == Outcome::sent;
}

std::string counted(unsigned int count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

} // namespace

Confirmation::Confirmation(std::chrono::milliseconds timeLimit, bool bJson)
    : m_bJson(bJson), m_dispatcher(optionsFor(timeLimit)) {}

void Confirmation::post(VornNet::VornProxyDependent& proxy, const VornNet::VornNotification& notification) {
    try {
        m_dispatcher.post(proxy, notification);
    } catch (const VornException& error) {
        if (error.getCode() != EINVAL)
            throw;
        throw ToolError(exitUsage, "with --confirm an address is pipe:NAME, or socket: or udp: with a dotted "
                                   "address and a port");
    }
}

int Confirmation::exitStatus() const {
    const VornDispatcher::Statistics sums = m_dispatcher.statistics();
    const std::lock_guard lock(m_mutex);
    if (sums.nDelivered + sums.nSent == sums.nPosted)
        return exitDone;
    if (sums.nDelivered + sums.nSent > 0)
        return exitIncomplete;
    switch (m_lastFailure.outcome) {
    case Outcome::unread:
        return exitRefused;
    case Outcome::expired:
        return statusOfFailure(m_lastFailure.nCode, "");
    default:
        return exitFailed;
    }
}

VornDispatcher::Options Confirmation::optionsFor(std::chrono::milliseconds timeLimit) {
    VornDispatcher::Options options;
    if (timeLimit > std::chrono::milliseconds(0))
        options.terms.timeLimit = timeLimit;
    options.overflow = VornDispatcher::Overflow::wait;
    options.stopLimit = std::chrono::milliseconds(0);
    options.onResult = [this](const VornDispatcher::Result& result) { print(result); };
    return options;
}

void Confirmation::print(const VornDispatcher::Result& result) {
    if (!isDone(result.outcome)) {
        const std::lock_guard lock(m_mutex);
        m_lastFailure = result;
    }
    const std::string outcome = VornDispatcher::nameOf(result.outcome);
    if (m_bJson) {
        Output::json({{"notification", result.nTicket},
                      {"address", result.sAddress},
                      {"outcome", outcome},
                      {"code", result.nCode},
                      {"tries", result.nTries},
                      {"doubtful", result.nDoubtfulTries},
                      {"microseconds", result.elapsed.count()}});
        return;
    }
    char milliseconds[32];
    std::snprintf(milliseconds, sizeof milliseconds, "%.2f",
                  static_cast<double>(result.elapsed.count()) / 1000);
    std::string text = "notification " + std::to_string(result.nTicket) + ": " + outcome + ", " +
                       counted(result.nTries, "try", "tries") + ", " + milliseconds + " ms";
    if (result.nDoubtfulTries > 0)
        text += ", " + std::to_string(result.nDoubtfulTries) + " of them doubtful";
    if (!isDone(result.outcome) && result.nCode != 0)
        text += " (" + std::to_string(result.nCode) + " " + std::strerror(result.nCode) + ")";
    Output::line(text);
}

} // namespace VornTool
