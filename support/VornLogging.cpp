// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornLogging.h"

#include "Cancellation.h"
#include "ForkHandlers.h"
#include "NeverDestroyed.h"
#include "Probe.h"
#include "SharedField.h"
#include "StandardError.h"
#include "SystemCalls.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace VornSupport {

namespace {

constexpr int cNothing = INT_MIN;

/** A record that its thread has opened and not yet completed. */
struct Record {
    Record* outer; // the record that was open when this one was opened
    int level;
    VornString text;
};

// A plain pointer, so that there is nothing to destroy: records are written after a thread's own destructors
// and after main's thread-local objects are gone.
thread_local Record* t_record = nullptr;

// Whether the newest record could not be opened: what is streamed belongs to it and is dropped with it. The
// next record starts afresh, for the end of this one may never come: where memory is short, what was to be
// written may have thrown.
thread_local bool t_bDropping = false;

/** Where records go, one at a time. Threads and static objects may log while the process ends: it stays. */
struct Output {
    // Recursive: a handler may log, and may replace itself.
    std::recursive_mutex lock;
    std::shared_ptr<const VornLogging::RecordHandler> handler;
    StandardError standardError;
};

Output& theOutput() {
    static NeverDestroyed<Output> output;
    return output.object;
}

[[gnu::constructor]] void adoptStandardError() {
    theOutput().standardError.adopt();
}

// Serialises the two setters, so that the admitted level always belongs to the last state of both.
std::mutex& levelLock() {
    static NeverDestroyed<std::mutex> lock;
    return lock.object;
}

// A thread that forks in a log handler holds the handler's lock; in the child it has another id, and so no
// longer owns that lock.
const ForkHandlers g_forkHandlers(
    [] {
        theOutput().lock.lock();
        levelLock().lock();
    },
    [] {
        levelLock().unlock();
        theOutput().lock.unlock();
    },
    [] {
        levelLock().unlock();
        makeAnew(theOutput().lock);
    },
    ForkHandlers::cFirst);

Record* openRecord(int level) noexcept {
    auto* record = new (std::nothrow) Record{t_record, level, {}};
    t_bDropping = record == nullptr;
    if (record != nullptr)
        t_record = record;
    return record;
}

/** Logging must not change what the caller is about to do: neither by an exception nor through errno. */
template <typename Append>
void append(Append&& appendTo) noexcept {
    if (t_bDropping)
        return;
    const int savedErrno = errno;
    Record* record = t_record != nullptr ? t_record : openRecord(VornLogging::cUserOutput);
    try {
        if (record != nullptr)
            appendTo(record->text);
    } catch (const std::bad_alloc&) { // GCOVR_EXCL_BR_LINE: nothing else is thrown
        // The record goes on without this piece.
    }
    errno = savedErrno;
}

void appendPrefix(VornString& line, int level) {
    timespec now{};
    System::clockGettime(CLOCK_REALTIME, &now);
    tm utc{};
    ::gmtime_r(&now.tv_sec, &utc);
    std::array<char, 96> prefix{};
    const int length =
        std::snprintf(prefix.data(), prefix.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ %d [%d:%d] ",
                      utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                      now.tv_nsec / 1000, level, System::getpid(), System::gettid());
    line.append(prefix.data(), static_cast<std::size_t>(length));
}

/** Shows control characters as \xNN: a text that comes from a peer must not look like further records. */
void appendPrintable(VornString& line, const VornString& text) {
    static constexpr const char* cDigits = "0123456789abcdef";
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte != 0x7F)
            line += character;
        else
            line.append("\\x").append(1, cDigits[byte >> 4]).append(1, cDigits[byte & 15]);
    }
}

VornString lineOf(const Record& record) {
    VornString line;
    line.reserve(record.text.size() + 96);
    appendPrefix(line, record.level);
    appendPrintable(line, record.text);
    line += '\n';
    return line;
}

void emitRecord(const Record& record) {
    Output& output = theOutput();
    const std::lock_guard lock(output.lock);
    const auto handler = output.handler; // stays alive when the handler replaces itself
    if (handler == nullptr)
        output.standardError.writeLine(lineOf(record));
    else
        (*handler)(record.level, record.text);
}

} // namespace

VornLogging VornLogging::s_instance;
bool VornLogging::s_bAccessAllowed = true;
int VornLogging::s_nLogLevel = VornLogging::cOff;
int VornLogging::s_nAdmittedLevel = VornLogging::cOff;

void VornLogging::setAccessAllowed(bool bAllowed) {
    const std::lock_guard lock(levelLock());
    writeShared(s_bAccessAllowed, bAllowed);
    writeShared(s_nAdmittedLevel, bAllowed ? s_nLogLevel : cNothing);
}

void VornLogging::setRecordHandler(RecordHandler handler) {
    std::shared_ptr<const RecordHandler> replacement;
    if (handler)
        replacement = std::make_shared<const RecordHandler>(std::move(handler));
    Output& output = theOutput();
    const std::lock_guard lock(output.lock);
    output.handler.swap(replacement);
    if (output.handler == nullptr)
        output.standardError.adopt();
}

void VornLogging::setLogLevel(int nLevel) {
    const std::lock_guard lock(levelLock());
    writeShared(s_nLogLevel, nLevel);
    writeShared(s_nAdmittedLevel, s_bAccessAllowed ? nLevel : cNothing);
}

VornLogging& VornLogging::operator<<(const setloglevel& level) {
    const int savedErrno = errno;
    openRecord(level.level());
    errno = savedErrno;
    return *this;
}

VornLogging& VornLogging::operator<<(const char* text) {
    append([text](VornString& record) { record += text == nullptr ? "" : text; });
    return *this;
}

VornLogging& VornLogging::operator<<(const VornString& sText) {
    append([&sText](VornString& record) { record += sText; });
    return *this;
}

VornLogging& VornLogging::operator<<(char character) {
    append([character](VornString& record) { record += character; });
    return *this;
}

VornLogging& VornLogging::operator<<(short nValue) {
    return *this << static_cast<long>(nValue);
}

VornLogging& VornLogging::operator<<(int nValue) {
    return *this << static_cast<long>(nValue);
}

VornLogging& VornLogging::operator<<(long nValue) {
    append([nValue](VornString& record) { record += std::to_string(nValue); });
    return *this;
}

/**
 * A tracer that follows the process raises the admitted level in the process's memory, past the level that
 * the program has set. What the program has not asked for must not come out of it.
 */
bool VornLogging::isForTracersOnly(int nLevel) {
    const int nAskedFor = isAccessAllowed() ? readShared(s_nLogLevel) : cNothing;
    return readShared(s_nAdmittedLevel) > nAskedFor && nLevel > nAskedFor;
}

void VornLogging::completeRecord() {
    if (t_bDropping) {
        t_bDropping = false;
        return;
    }
    if (t_record == nullptr)
        return;
    const int savedErrno = errno;
    const std::unique_ptr<Record> record(t_record);
    t_record = record->outer;
    VORN_PROBE(record, record->level, record->text.c_str());
    try {
        if (!isForTracersOnly(record->level))
            emitRecord(*record);
    } catch (...) {
        // A failing log handler must not fail the code that logs.
        if (isCancellation())
            throw;
    }
    errno = savedErrno;
}

VornLogging& endrecord(VornLogging& logger) {
    logger.completeRecord();
    return logger;
}

} // namespace VornSupport
