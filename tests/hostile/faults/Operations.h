// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_OPERATIONS_H
#define VORNTEST_OPERATIONS_H

#include "AllocationFaults.h"

#include <VornException.h>

#include <functional>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

/**
 * @file
 * The table of every public operation, for the failures of its allocations.
 */
namespace VornTest {

/** What an operation of which an allocation fails may do; several may be combined. */
enum Ending : unsigned {
    allocatesNothing = 0,     ///< it has no allocation that could fail
    throwsBadAlloc = 1,       ///< std::bad_alloc
    throwsVornException = 2,  ///< VornException
    doesWithout = 4,          ///< it goes on without what needed the memory, or reports an error
    endsProcess = 8,          ///< std::terminate(), as is promised for what no caller expects
    neverReturns = 16,        ///< a sink's constructor whose thread cannot make the server
    throwsSomethingElse = 32, ///< never allowed
};

/**
 * Of what starts a QuietThread. The thread has something local that is to be destroyed, and where there is no
 * memory to remember that, the C library ends the process.
 */
inline constexpr unsigned startsAThread = throwsBadAlloc | throwsVornException | doesWithout | endsProcess;

/** One run of an operation, in which perhaps an allocation fails. */
class Trial {
public:
    /** @param nth which allocation fails; 0 for none */
    Trial(int nth, AllocationFault::Mode mode) : m_nth(nth), m_mode(mode) {}

    /** Does the operation; around it a row may prepare and look at what it needs. Once per run. */
    template <typename Operation>
    void attempt(Operation&& operation) {
        attemptOn(AllocationFault::Scope::thisThread, operation);
    }

    /** The same for an operation that works on other threads as well: their allocations fail, too. */
    template <typename Operation>
    void attemptOnAllThreads(Operation&& operation) {
        attemptOn(AllocationFault::Scope::allThreads, operation);
    }

    /** The same, but it is of other threads only: what this one does is a peer's part. */
    template <typename Operation>
    void attemptOnOtherThreads(Operation&& operation) {
        attemptOn(AllocationFault::Scope::otherThreads, operation);
    }

    /** Whether the operation has thrown: what it works on must then be as before. */
    bool hasThrown() const { return m_ending != doesWithout; }

    /** The code of the VornException that it has thrown; 0 when it has not. */
    int code() const { return m_code; }

    /** Notes what must not be, for example that an object is half changed. */
    void expect(bool isTrue, const char* otherwise) {
        if (!isTrue && m_note == nullptr)
            m_note = otherwise;
    }

    /** By contract a datagram that cannot be sent leaves its descriptor open. */
    void allowOpenDescriptor() { m_mayLeaveDescriptor = true; }

    Ending ending() const { return m_ending; }

    const char* note() const { return m_note; }

    int allocations() const { return m_allocations; }

    bool mayLeaveDescriptor() const { return m_mayLeaveDescriptor; }

private:
    template <typename Operation>
    void attemptOn(AllocationFault::Scope scope, Operation& operation) {
        m_ending = throwsSomethingElse;
        try {
            const AllocationFault fault(m_nth == 0 ? cNever : m_nth, m_mode, scope);
            operation();
            m_ending = doesWithout;
        } catch (const std::bad_alloc&) {
            m_ending = throwsBadAlloc;
        } catch (const VornSupport::VornException& exception) {
            m_ending = throwsVornException;
            m_code = exception.getCode();
        } catch (...) {
            m_ending = throwsSomethingElse;
        }
        m_allocations = AllocationFault::allocations();
    }

    static constexpr int cNever = 1'000'000'000;

    int m_nth;
    AllocationFault::Mode m_mode;
    Ending m_ending = doesWithout;
    int m_code = 0;
    const char* m_note = nullptr;
    int m_allocations = 0;
    bool m_mayLeaveDescriptor = false;
};

/** A row of the table. */
struct Operation {
    /**
     * The operations that are done, as "Class::operation, another of that class" or "function", and perhaps
     * "(under which circumstances)".
     */
    std::string title;
    unsigned allowed;
    std::function<void(Trial&)> run;
};

/** The table. */
class Operations {
public:
    /** @param run is given a Trial, or is the operation itself */
    template <typename Run>
    void add(const std::string& title, unsigned allowed, Run run) {
        if constexpr (std::is_invocable_v<Run, Trial&>)
            m_rows.push_back({title, allowed, run});
        else
            m_rows.push_back({title, allowed, [run](Trial& trial) { trial.attempt(run); }});
    }

    /** The same, with a circumstance that is not known before. */
    template <typename Run>
    void add(const std::string& title, const std::string& circumstance, unsigned allowed, Run run) {
        add(title + " (" + circumstance + ")", allowed, run);
    }

    const std::vector<Operation>& rows() const { return m_rows; }

private:
    std::vector<Operation> m_rows;
};

void addTexts(Operations& table);
void addSupport(Operations& table);
void addConnections(Operations& table);
void addTransports(Operations& table);
void addServers(Operations& table);
void addNotifications(Operations& table);
void addSinks(Operations& table);
void addSteadySinks(Operations& table);
void addSubscriptions(Operations& table);

/** The names and addresses that the table's operations look up. */
const char* hostsFile();

} // namespace VornTest

#endif
