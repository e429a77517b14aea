// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SANITIZER_H
#define VORNTEST_SANITIZER_H

namespace VornTest {

/** Whether the address or the thread sanitizer watches, which need memory and time of their own. */
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool underSanitizer = true;
#elif defined(__has_feature)
#    if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
inline constexpr bool underSanitizer = true;
#    else
inline constexpr bool underSanitizer = false;
#    endif
#else
inline constexpr bool underSanitizer = false;
#endif

} // namespace VornTest

#endif
