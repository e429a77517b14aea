// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSTRING_H
#define VORNSTRING_H

#include "VornSupportExport.h"

#include <string>

// Another std::string has another layout under the same name: such a program links and damages its memory.
#if !defined(__GLIBCXX__) || !_GLIBCXX_USE_CXX11_ABI
#    error "vornnet needs libstdc++ and its C++11 std::string: no -stdlib=libc++, _GLIBCXX_USE_CXX11_ABI=1"
#endif

/**
 * @file
 * The two text types and the conversions between them and to character buffers.
 *
 * Thread-safety: all functions are re-entrant.
 * Blocking: none.
 * Ownership: results are values.
 * Signals: none raised.
 * Errors: only std::bad_alloc.
 */

namespace VornSupport {

/** Narrow text: bytes without any promise about their encoding. Every name, address and message is one. */
using VornString = std::string;

/** Wide text, used inside VornException only. */
using VornUString = std::wstring;

/**
 * Copies @p s into @p buffer and terminates it with a zero byte; what does not fit is cut off.
 *
 * @param s       the text; zero bytes inside it are copied like any other
 * @param buffer  room for @p size bytes, owned by the caller
 * @param size    capacity of @p buffer in bytes, terminator included; with 0 or less nothing is written
 */
VORNSUPT_API void VornStringToChar(const VornString& s, char* buffer, int size);

/** @return a copy of the zero-terminated @p text; an empty one for a null pointer. */
VORNSUPT_API VornString VornStringFromChar(const char* text);

/**
 * Widens @p s: valid UTF-8 becomes the characters it stands for, and each byte that is no part of valid
 * UTF-8 becomes the character U+DC00 + byte, so that VornStringToNarrow() gives back every byte exactly.
 */
VORNSUPT_API VornUString VornStringToWide(const VornString& s);

/**
 * Narrows @p s to UTF-8; the inverse of VornStringToWide(). A value that is no character (above U+10FFFF, or
 * a surrogate which does not stand for a byte) becomes U+FFFD.
 */
VORNSUPT_API VornString VornStringToNarrow(const VornUString& s);

} // namespace VornSupport

#endif
