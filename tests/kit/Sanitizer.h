// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SANITIZER_H
#define VORNTEST_SANITIZER_H

#include <string>
#include <vector>

namespace VornTest {

#if defined(__has_feature)
#    define VORNTEST_HAS_FEATURE(name) __has_feature(name)
#else
#    define VORNTEST_HAS_FEATURE(name) 0
#endif

/** Whether the thread sanitizer watches. */
#if defined(__SANITIZE_THREAD__) || VORNTEST_HAS_FEATURE(thread_sanitizer)
inline constexpr bool underThreadSanitizer = true;
#else
inline constexpr bool underThreadSanitizer = false;
#endif

/** Whether the address or the thread sanitizer watches, which need memory and time of their own. */
#if defined(__SANITIZE_ADDRESS__) || VORNTEST_HAS_FEATURE(address_sanitizer)
inline constexpr bool underSanitizer = true;
#else
inline constexpr bool underSanitizer = underThreadSanitizer;
#endif

/** Whether the address sanitizer watches. */
inline constexpr bool underAddressSanitizer = underSanitizer && !underThreadSanitizer;

/*
 * Why a sanitizer does not see a test: what it cannot do, so that the test would hang or end with a word of
 * the sanitizer's own, whatever the library does. All of these run without one.
 */

/**
 * The thread sanitizer supports no new threads in the child of a process that had several: their ids and
 * stacks are taken, and the child ends with "dup thread with used id".
 */
inline constexpr const char* takesItForTheParentsThread =
    "it takes a thread of the child for that thread of the parent which had the same stack";

/**
 * The thread sanitizer puts a signal off until the call in which it came has returned. A test whose handler
 * is to end that call waits forever.
 */
inline constexpr const char* runsHandlersLate = "it runs a signal handler only when the call has returned";

/**
 * The address sanitizer calls sigaltstack() whenever a cancelled thread has passed a handler on its way out,
 * on a stack where the frames that the thread has left are still poisoned, and reports that call of its own
 * as an overflow. The thread sanitizer runs these tests.
 */
inline constexpr const char* overflowsByItself =
    "it reports its own sigaltstack() as an overflow while a cancelled thread unwinds";

/** The thread sanitizer's own thread wakes ten times a second, so that the process never rests. */
inline constexpr const char* keepsTheProcessAwake = "its own thread keeps the process awake";

/** Their run time refuses to start after another library that is preloaded. */
inline constexpr const char* mustBeLoadedFirst = "its run time must be the first library of the program";

/**
 * The environment for a program that calls exit() on any of its threads or in children: the thread sanitizer
 * finds no order between the threads of a process of which one ends it, and the leak sanitizer takes what the
 * parent's threads hold for lost in a child.
 */
inline const std::vector<std::string> exitOnAnyThread{"TSAN_OPTIONS=report_bugs=0",
                                                      "ASAN_OPTIONS=detect_leaks=0"};

} // namespace VornTest

#endif
