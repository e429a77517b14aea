// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNPOSITION_H
#define VORNPOSITION_H

#include "VornNotifyExport.h"

#include <VornNetExport.h>
#include <VornString.h>

#include <cstdint>

namespace VornNet {

/**
 * A place in the history of a topic: after the event of that number.
 *
 * Numbers count a topic's events 1, 2, 3, ... within one history. A history begins when a publisher has none
 * to go on with. It has a number of its own, drawn at random, so that the numbers of two histories are never
 * mixed up.
 *
 * Thread-safety: as any value: one thread at a time, or many that only read.
 * Blocking: none.
 * Ownership: a value.
 * Signals: none raised.
 * Errors: VornException from fromText().
 */
struct VORNNOTIFY_API VornPosition {
    std::uint64_t nHistory = 0; ///< the history; 0: none, the position is nowhere
    std::uint64_t nNumber = 0;  ///< the last event before the place; 0: the beginning

    /** @return the history as 16 hexadecimal digits, '-', and the number as 20 decimal ones. */
    VornString text() const;

    /**
     * Reads what text() has written; leading zeros of the number may be left out.
     * @throws VornException 22 (EINVAL) "VornPosition::fromText: no position."
     */
    static VornPosition fromText(const VornString& sText);
};

/** @return whether both are the same place. */
inline bool operator==(const VornPosition& left, const VornPosition& right) {
    return left.nHistory == right.nHistory && left.nNumber == right.nNumber;
}

/** @return whether they are two places. */
inline bool operator!=(const VornPosition& left, const VornPosition& right) {
    return !(left == right);
}

} // namespace VornNet

#endif
