// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SANDBOX_H
#define VORNTEST_SANDBOX_H

#include <string>

/**
 * @file
 * The private world of a test program: its own mount and network namespaces.
 */
namespace VornTest {

/**
 * Moves the process into a sandbox of its own.
 *
 * Afterwards /opt is an empty tmpfs which contains nothing but the directory of the Unix sockets, `lo` is the
 * only network interface, and names are looked up in the kit's hosts and group files alone. An ordinary user
 * becomes root of a user namespace. A failing step ends the program with exit status 2 and a line on stderr.
 *
 * To be called first in main(), while there is one thread. A process which finds itself in a sandbox already
 * (a child of a test program) stays there.
 *
 * Where no namespaces can be created, script/test sets VORNTEST_IN_PLACE and runs one test after the other.
 * Then there is no sandbox: the program gets an empty pipe directory and shares everything else with the
 * host.
 */
void enterSandbox();

/**
 * Ends the program as skipped if it runs in place.
 *
 * For a test that needs a network, a mount or a system file of its own; @p need says which, and is printed.
 */
void needSandbox(const char* need);

/** Gives the calling thread, and those it starts, a network of nothing but `lo`: every port is free there. */
void enterFreshNetwork();

/** The directory of the Unix sockets, with a slash at its end. */
const char* pipeDirectory();

/** The path of the Unix socket called @p name. */
std::string pipePath(const std::string& name);

/** Makes @p text the contents of /etc/hosts, as seen within the sandbox; not while a look-up is going on. */
void useHostsFile(const std::string& text);

/** Makes @p text the contents of /etc/group; an ordinary user's sandbox can chown to group 0 only. */
void useGroupFile(const std::string& text);

/** Undoes both: `localhost` is 127.0.0.1, group `root` is 0, and there is no other name. */
void restoreSystemFiles();

} // namespace VornTest

#endif
