// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_LOGRECORD_H
#define VORNSUPPORT_LOGRECORD_H

/** @file
 *  The one way in which both libraries write a log record. Not installed.
 */

#include "VornLogging.h"

#include <type_traits>

namespace VornSupport {

/** A text, whatever its length: one type, so that records of the same pieces share their code. */
inline const char* pieceOf(const char* text) {
    return text;
}

/** @return what the logger is to stream: the piece, or what the piece computes. */
template <typename Piece>
decltype(auto) pieceOf(const Piece& piece) {
    if constexpr (std::is_invocable_v<const Piece&>)
        return piece();
    else
        return (piece);
}

/** Writes a record that is admitted; out of the way of the code that writes none. */
template <typename... Pieces>
[[gnu::cold, gnu::noinline]] void writeRecord(int nLevel, const Pieces&... pieces) {
    VornLogging& logger = VornLogging::getInstance();
    logger << setloglevel(nLevel);
    (logger << ... << pieces) << endrecord;
}

/**
 * Writes the pieces as one record when its level is admitted.
 *
 * A piece is whatever the logger streams. One that takes work is given as a function without parameters,
 * which is called only when the record is written.
 */
template <typename... Pieces>
void logRecord(int nLevel, const Pieces&... pieces) {
    if (VornLogging::isAdmitted(nLevel))
        writeRecord(nLevel, pieceOf(pieces)...);
}

} // namespace VornSupport

#endif
