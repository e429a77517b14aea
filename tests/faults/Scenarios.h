// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SCENARIOS_H
#define VORNTEST_SCENARIOS_H

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

/**
 * @file
 * What a program does with the library, each as one function that makes all of the library's calls on the
 * calling thread, beside a plain POSIX peer on another.
 */
namespace VornTest {

/// How a scenario ended.
struct Outcome {
    /// The exception's text; "no client" for a wait that ended quietly, "not sent" for a failed datagram,
    /// else empty.
    std::string text;
    /// The exception's code.
    int code = 0;

    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* stream);

/// What the failure of a system call must lead to.
struct Expectation {
    std::string function;
    /// The exception's text; empty when the failure must not be noticed.
    std::string text;
    /// The exception's code; sameErrno for the error number of the call.
    int code = 0;
    /// Descriptors left open by contract.
    int leaked = 0;
    /// Whether a failure that happens once is not noticed, because the next operation tries again.
    bool isHealed = false;
    /// Whether only the first such call matters; later ones are made for something that nobody waits for.
    bool isFirstOnly = false;

    static constexpr int sameErrno = -1;
};

/// Runs the library's part of a scenario, and only that, under whatever is to go wrong with it.
using Stage = std::function<Outcome(const std::function<std::string()>& action)>;

struct Scenario {
    std::string name;
    std::function<Outcome(const Stage& stage)> run;
    std::vector<Expectation> expectations;
    /// Ends a wait which by contract goes on for ever; null where there is none.
    std::function<void()> interrupt;
    /// How it ends when nothing fails.
    Outcome undisturbed = {};
};

/// Runs an action and tells how it ended; the stage on which nothing goes wrong.
Outcome outcomeOf(const std::function<std::string()>& action);

/// All scenarios.
std::vector<Scenario> allScenarios();

/// The error numbers which the manual page of a function lists.
const std::vector<int>& errorsOf(const std::string& function);

} // namespace VornTest

#endif
