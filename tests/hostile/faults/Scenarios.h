// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SCENARIOS_H
#define VORNTEST_SCENARIOS_H

#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <vector>

/**
 * @file
 * What a program does with the library, each as one function, beside a plain POSIX peer; and what must come
 * of it when a system call fails.
 */
namespace VornTest {

/** How a scenario ended. */
struct Outcome {
    /**
     * The exception's text; "no client" for a wait that ended quietly, "not sent" for a failed datagram and
     * the like, else empty.
     */
    std::string text;
    /** The exception's code. */
    int code = 0;

    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* stream);

/** The failure of one system call: call site, error number and mode. */
struct CallFault {
    std::string function;
    int error = 0;
    /** Which one of the calls is the first to fail. */
    int nth = 1;
    /** Whether it fails from then on always, or once. */
    bool isLasting = false;
};

/** What must come of a failure. */
struct Promise {
    Outcome outcome;
    /** Descriptors left open by contract, for each failure. */
    int leaked = 0;
    /** Whether it goes on until somebody interrupts it or the failure passes. */
    bool isEndless = false;
};

using Rule = std::function<Promise(const CallFault&)>;

/** A function that the scenario calls, and what must come of its failure. */
struct FailingCall {
    std::string function;
    Rule rule;
};

/** The rules of which most scenarios are made. @{ */

/** The exception of that text; its code is the call's error number. */
Rule fails(const std::string& text);
/** The exception or result of that text and code. */
Rule endsWith(const std::string& text, int code = 0);
/** Nobody notices. */
Rule isIgnored();
/** Nobody notices, but each time a descriptor stays open. */
Rule isIgnoredAndLeaks();
/** What @p rule says while it lasts; nobody notices a single failure, for the call is made again. */
Rule isTriedAgain(const Rule& rule);
/** What @p rule says for the first call; later ones are made for something that nobody waits for. */
Rule ofFirstCall(const Rule& rule);
/**
 * A wait for clients that ends silently with some error numbers and is taken up again with the others.
 */
Rule endsWait(std::initializer_list<int> quiet);

/** @} */

/** Runs the library's part of a scenario, and only that, under whatever is to go wrong with it. */
using Stage = std::function<Outcome(const std::function<std::string()>& action)>;

struct Scenario {
    std::string name;
    std::function<Outcome(const Stage& stage)> run;
    std::vector<FailingCall> calls;
    /** How it ends when nothing fails. */
    Outcome undisturbed = {};
    /** Ends what an endless failure holds up, called again and again; without it the failure passes. */
    std::function<void()> interrupt = nullptr;
};

/** Runs an action and tells how it ended; the stage on which nothing goes wrong. */
Outcome outcomeOf(const std::function<std::string()>& action);

/** Stages an action, and afterwards does it again with the same objects, undisturbed. */
Outcome twice(const Stage& stage, const std::function<std::string()>& action,
              const Outcome& undisturbed = {});

std::vector<Scenario> clientScenarios();
std::vector<Scenario> serverScenarios();
std::vector<Scenario> closingScenarios();

/** All of them. */
std::vector<Scenario> allScenarios();

} // namespace VornTest

#endif
