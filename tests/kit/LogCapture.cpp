// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LogCapture.h"

#include <algorithm>
#include <ostream>

#include <VornLogging.h>

namespace VornTest {

namespace {

using VornSupport::VornLogging;

bool mentions(const LogCapture::Record& record, const std::string& text) {
    return record.text.find(text) != std::string::npos;
}

} // namespace

LogCapture::LogCapture(int level) : m_state(std::make_shared<State>()) {
    // The handler owns the state as well: a thread may be about to log when the capture ends.
    VornLogging::setRecordHandler([state = m_state](int recordLevel, const VornSupport::VornString& text) {
        const std::lock_guard<std::mutex> lock(state->mutex);
        state->records.push_back({recordLevel, text});
        state->changed.notify_all();
    });
    VornLogging::setAccessAllowed(true);
    VornLogging::getInstance().setLogLevel(level);
}

LogCapture::~LogCapture() {
    VornLogging::getInstance().setLogLevel(VornLogging::cOff);
    VornLogging::setAccessAllowed(true);
    VornLogging::setRecordHandler({});
}

std::vector<LogCapture::Record> LogCapture::records() const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->records;
}

std::vector<std::string> LogCapture::texts() const {
    std::vector<std::string> result;
    for (const Record& record : records())
        result.push_back(record.text);
    return result;
}

bool LogCapture::contains(int level, const std::string& text) const {
    const std::vector<Record> all = records();
    return std::any_of(all.begin(), all.end(),
                       [&](const Record& record) { return record.level == level && mentions(record, text); });
}

int LogCapture::count(const std::string& text) const {
    const std::vector<Record> all = records();
    return static_cast<int>(
        std::count_if(all.begin(), all.end(), [&](const Record& record) { return mentions(record, text); }));
}

bool LogCapture::await(const std::string& text, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->changed.wait_for(lock, limit, [&] {
        return std::any_of(m_state->records.begin(), m_state->records.end(),
                           [&](const Record& record) { return mentions(record, text); });
    });
}

void LogCapture::clear() {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->records.clear();
}

void PrintTo(const LogCapture::Record& record, std::ostream* out) {
    *out << '[' << record.level << "] \"" << record.text << '"';
}

} // namespace VornTest
