// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_LOGCAPTURE_H
#define VORNTEST_LOGCAPTURE_H

#include "Await.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/**
 * @file
 * What the library logs.
 */
namespace VornTest {

/**
 * Collects the library's log records while it exists. At its end the logger is off and has no handler.
 *
 * There can be one at a time.
 */
class LogCapture {
public:
    /** One log record. */
    struct Record {
        int level = 0;
        std::string text;

        friend bool operator==(const Record& left, const Record& right) = default;
    };

    /** Admits the records of @p level and of all below. */
    explicit LogCapture(int level = 9);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Record> records() const;
    std::vector<std::string> texts() const;

    /** Whether there is a record of this level whose text contains @p text. */
    bool contains(int level, const std::string& text) const;

    /** How many records' texts contain @p text. */
    int count(const std::string& text) const;

    /** Waits until a record's text contains @p text; false if none did within @p limit. */
    bool await(const std::string& text, std::chrono::milliseconds limit = defaultLimit);

    /** Forgets what has been collected. */
    void clear();

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<Record> records;
    };

    std::shared_ptr<State> m_state;
};

/** For GoogleTest's messages. */
void PrintTo(const LogCapture::Record& record, std::ostream* out);

} // namespace VornTest

#endif
