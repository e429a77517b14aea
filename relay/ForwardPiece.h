// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_FORWARDPIECE_H
#define VORNRELAY_FORWARDPIECE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace VornRelay {

/**
 * What one end of a forwarded connection tells the other: bytes and their place, how far the other may go,
 * and whether this is the end.
 *
 * Every piece has all of it, also one without bytes. So whatever was lost before is noticed at the next
 * piece, and a limit or an end that was lost is told again by it.
 *
 * Thread-safety: none needed. Blocking: none. Ownership: the bytes are the caller's. Signals: none raised.
 * Errors: none.
 */
struct ForwardPiece {
    /** What can be said beside the bytes. */
    enum Flag : std::uint8_t {
        opens = 1, ///< the connection begins with it
        ends = 2,  ///< there are no bytes after these
        resets = 4 ///< the connection is no more; the bytes say why
    };

    static constexpr std::size_t headerSize = 18;

    std::uint8_t nFlags = 0;
    std::uint64_t nPosition = 0; ///< how many bytes of the sender there were before these
    std::uint64_t nLimit = 0;    ///< how many bytes of the receiver may come in all
    std::string_view sBytes;

    /** @return it as it is told: version, flags, position and limit in network order, bytes. */
    std::string text() const;

    /** @return what a text says, whose bytes it refers to; nothing when it is none of this version. */
    static std::optional<ForwardPiece> of(std::string_view sText);
};

} // namespace VornRelay

#endif
