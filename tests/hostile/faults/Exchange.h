// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_EXCHANGE_H
#define VORNTEST_EXCHANGE_H

#include "Scenarios.h"

#include <functional>
#include <string>
#include <vector>

namespace VornTest {

/** What has come of an exchange. */
struct Exchanged {
    Outcome outcome;
    /** What the connection has read, value by value. */
    std::vector<std::string> read;
    /** The bytes that have arrived at its peer. */
    std::string arrived;

    bool operator==(const Exchanged&) const = default;
};

void PrintTo(const Exchanged& exchanged, std::ostream* stream);

/**
 * The whole exchange over one kind of connection: it is opened, every type of value is written and read in
 * turn, and it is closed. Its peer is made of plain POSIX calls on another thread.
 */
struct Exchange {
    std::string name;
    std::function<Exchanged(const Stage& stage)> run;
    /** What must come of it: the values, and the bytes, written out by hand. */
    Exchanged undisturbed;
    /** How it ends when the n-th call of a function is interrupted. */
    std::function<Outcome(const std::string& function, int nth)> interrupted;
    /** Whether it can be begun again after it has failed. */
    bool isRepeatable = false;
};

std::vector<Exchange> allExchanges();

} // namespace VornTest

#endif
