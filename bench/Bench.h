// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_BENCH_H
#define VORNBENCH_BENCH_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

/** @file
 *  What the workloads share: a workload is a job, and its contenders are the ways to do it.
 */
namespace Bench {

using Clock = std::chrono::steady_clock;

/** One way to do a job. It is set up by the constructor and torn down by the destructor, unmeasured. */
class Contender {
public:
    virtual ~Contender() = default;

    /** What an operation needs before it and is not measured. */
    virtual void prepare() {}

    /** Does the job once. @return when it was done, which may be on another thread */
    virtual Clock::time_point operate() = 0;
};

/** A contender of a workload, by name. */
struct Entry {
    std::string workload;
    std::string contender; // "limit" for what the others are compared with
    long units;            // how many values, messages, ... one operation handles
    long parameter;        // the place on the axis of a scaling workload, 0 for the others
    std::function<std::unique_ptr<Contender>()> make;

    /** workload/contender, followed by /parameter unless that is 0. */
    std::string name() const;
};

/** Adds to the list of what the program can do. */
void addEntry(Entry entry);

/** Adds a contender whose class is @p Kind. */
template <typename Kind, typename... Arguments>
void addContender(const std::string& workload, const std::string& contender, long units,
                  Arguments... arguments) {
    addEntry({workload, contender, units, 0, [=] { return std::make_unique<Kind>(arguments...); }});
}

/** Adds a contender that is a function: @p setUp makes the function, which does the job once. */
template <typename SetUp>
void addFunction(const std::string& workload, const std::string& contender, long units, SetUp setUp) {
    class FunctionContender : public Contender {
    public:
        explicit FunctionContender(const SetUp& given) : m_function(given()) {}

        Clock::time_point operate() override {
            m_function();
            return Clock::now();
        }

    private:
        decltype(std::declval<const SetUp&>()()) m_function;
    };

    addContender<FunctionContender>(workload, contender, units, setUp);
}

/**
 * @return whether what happens is being counted and time does not matter: tools that count stop the threads
 * at each of their calls, and what must happen in an order has to be held to it
 */
bool isCounting();

/** @return the place of the entry that is looked up next: all over the entries, in no order */
inline int placeOf(int lookUp, int entries) {
    return static_cast<int>(static_cast<unsigned int>(lookUp) * 2'654'435'761U %
                            static_cast<unsigned int>(entries));
}

/** @return how many blocks of memory the program has asked for; always 0 in the program that measures time.
 */
long allocations();

void addBlocks();
void addDeadClients();
void addDelivery();
void addEvents();
void addLogging();
void addNotification();
void addRegistry();
void addRequest();
void addScale();
void addSentValues();
void addServerCycle();
void addSinkDelivery();
void addStrings();
void addTypedNumbers();
void addUdp();

} // namespace Bench

#endif
