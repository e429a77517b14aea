// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_GDBRUN_H
#define VORNTEST_GDBRUN_H

#include "LeakCheckedTest.h"

#include <string>
#include <vector>

/**
 * @file
 * Runs gdb in batch on the debuggee.
 */
namespace VornTest {

using Lines = std::vector<std::string>;

/** What a run of gdb has written. */
struct GdbOutput {
    std::string output;
    std::string errors;
};

/** A directory that is removed with what is in it. */
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/** Runs gdb without anybody's settings and with the printers loaded. @p arguments go after its options. */
GdbOutput runGdb(const Lines& arguments, const Lines& environment = {});

/** gdb's options that execute the commands. */
Lines executing(const Lines& commands);

/** The text with the addresses of this run replaced by the word ADDRESS. */
std::string withoutAddresses(const std::string& text);

/**
 * Stops the debuggee, told to make the objects of @p scene, and shows expressions as seen from the function
 * that has them. A setting of gdb stands among the expressions as it is, beginning with "set ".
 *
 * What gdb has to say to an expression that it refuses stands in the place of the value. A trace of the
 * printers' own is a failure.
 */
Lines show(const std::string& scene, const Lines& expressions, const Lines& environment = {});

/** As show(), but with the program's core dump, after the program has ended. */
Lines showInCore(const std::string& scene, const Lines& expressions);

/** A test that runs gdb. */
class GdbPrinters : public LeakCheckedTest {};

} // namespace VornTest

#endif
