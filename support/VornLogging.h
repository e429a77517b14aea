// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNLOGGING_H
#define VORNLOGGING_H

#include "VornString.h"
#include "VornSupportExport.h"

#include <functional>

namespace VornSupport {

/** Manipulator that opens a record at a level: `logger << setloglevel(5) << ... << endrecord`. */
class setloglevel {
public:
    /** Names the level of the record. @param nLevel one of VornLogging::c_LogLevel */
    explicit constexpr setloglevel(int nLevel) : m_nLevel(nLevel) {}

    /** @return the level given. */
    constexpr int level() const { return m_nLevel; }

private:
    int m_nLevel;
};

/**
 * The process-wide logger.
 *
 * A writer asks isAdmitted() first and then streams one record:
 * @code
 * if (VornLogging::isAdmitted(VornLogging::cDebug))
 *     VornLogging::getInstance() << setloglevel(VornLogging::cDebug) << "Widget::open" << endrecord;
 * @endcode
 * The writing thread collects the record. At endrecord it leaves in one piece: as one line on standard error,
 * with time, level, process and thread id (control characters as \\xNN), or through the handler of a host
 * program. The logger exists before the first and after the last static object of the process. At first
 * access is allowed and the level is cOff, so that only the program can admit records.
 *
 * Standard error is the file that has descriptor 2 when the library is loaded. If that is closed, nothing is
 * written. A program may put a file, a pipe or a terminal in its place at any time. A socket that gets its
 * number later is taken for a connection and gets nothing; a program that wants its records there calls
 * setRecordHandler({}).
 *
 * Thread-safety: every operation may be called from any thread; records do not interleave. A record that is
 * opened while another one of the same thread is still open is written by itself. A record that never sees
 * its endrecord (an operand has thrown) is kept, and comes out with a later endrecord of its thread or not at
 * all.
 * A fork waits until the record at hand is written, and for a handler that is running.
 * Blocking: the default output blocks as write(2) on standard error does. If that does not block, a record
 * waits up to a second for room; then the rest of it is lost, and the next begins on a new line. One record
 * is written or handled at a time, under the logger's lock.
 * Ownership: the handler is copied and lives until it is replaced.
 * Signals: none raised, except SIGPIPE if standard error is a broken pipe.
 * Errors: none reach the writer: a record for which there is no memory, and an exception from a handler, are
 * dropped.
 */
class VORNSUPT_API VornLogging {
public:
    /** How much a record matters: the lower, the more. */
    enum c_LogLevel {
        cOff = -1,                 ///< nothing is admitted
        cUserOutput = 0,           ///< meant for the program's user
        cError = 1,                ///< transport failures
        cWarning = 2,              ///< what may become a failure
        cInformation = 3,          ///< milestones
        cVerbose = 4,              ///< line reading
        cTraceCoreLow = 5,         ///< server readiness and peers
        cTraceApplicationLow = 6,  ///< for programs
        cTraceCoreHigh = 7,        ///< connect details
        cTraceApplicationHigh = 8, ///< for programs
        cDebug = 9,                ///< state changes and the sink's tracing
        cLast = 10                 ///< above every level in use
    };

    /** Receives a record's level and its text as it was streamed, control characters included. */
    using RecordHandler = std::function<void(int nLevel, const VornString& sText)>;

    /** @return the one logger; valid at any time, also while the process ends. */
    static VornLogging& getInstance() { return s_instance; }

    /** @return whether records may be written at all. */
    static bool isAccessAllowed() { return __atomic_load_n(&s_bAccessAllowed, __ATOMIC_RELAXED); }

    /** Allows or forbids records of every level; the level itself stays. */
    static void setAccessAllowed(bool bAllowed);

    /** @return whether a record of @p nLevel is to be written: access and level in one comparison. */
    static bool isAdmitted(int nLevel) {
        return nLevel <= __atomic_load_n(&s_nAdmittedLevel, __ATOMIC_RELAXED);
    }

    /**
     * Routes records to @p handler; an empty one restores the default output, to whatever is standard error
     * by then.
     *
     * The handler is called from every thread that logs, one record at a time. It may log itself and may
     * replace itself, but must not wait for a lock that another thread holds while it logs. When this returns
     * on another thread than the handler's, the old handler runs no more.
     */
    static void setRecordHandler(RecordHandler handler);

    /** @return the highest level that is written. */
    int getLogLevel() const { return __atomic_load_n(&s_nLogLevel, __ATOMIC_RELAXED); }

    /** Sets the highest level that is written, one of c_LogLevel. */
    void setLogLevel(int nLevel);

    /** Opens a record on the calling thread. */
    VornLogging& operator<<(const setloglevel& level);

    /** Appends to the calling thread's record, which is opened at level 0 when there is none. @{ */
    VornLogging& operator<<(const char* text);
    VornLogging& operator<<(const VornString& sText);
    VornLogging& operator<<(char character);
    VornLogging& operator<<(short nValue);
    VornLogging& operator<<(int nValue);
    VornLogging& operator<<(long nValue);

    /** @} */

    /** Applies a manipulator such as endrecord. */
    VornLogging& operator<<(VornLogging& (*manipulator)(VornLogging&)) { return manipulator(*this); }

private:
    VornLogging() = default;
    ~VornLogging() = default;
    VornLogging(const VornLogging&) = delete;
    VornLogging& operator=(const VornLogging&) = delete;

    friend VORNSUPT_API VornLogging& endrecord(VornLogging& logger);

    VORNSUPT_LOCAL static bool isForTracersOnly(int nLevel);
    VORNSUPT_LOCAL void completeRecord();

    static VornLogging
        s_instance;               // without state or destructor, so there is no time at which it is not there
    static bool s_bAccessAllowed; // atomic
    static int s_nLogLevel;       // atomic
    static int s_nAdmittedLevel;  // atomic: the level while access is allowed, else below every level
};

/** Manipulator that completes the calling thread's record and writes it; without a record it does nothing. */
VORNSUPT_API VornLogging& endrecord(VornLogging& logger);

} // namespace VornSupport

#endif
