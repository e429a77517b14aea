// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SANITIZER_H
#define VORNTEST_SANITIZER_H

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

/** Why the thread sanitizer does not see a test whose forked child starts a thread. */
inline constexpr const char* takesItForTheParentsThread =
    "it takes a thread of the child for that thread of the parent which had the same stack";

/** Why the thread sanitizer does not see a test in which a signal handler runs while a call blocks. */
inline constexpr const char* runsHandlersLate = "it runs a signal handler only when the call has returned";

} // namespace VornTest

#endif
