// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_WIRE_H
#define VORNNOTIFY_WIRE_H

#include <VornNetExport.h>
#include <VornString.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include <endian.h>

namespace VornNet {

/** The exchange of publisher and subscriber, as bytes; docs/wire-format.md has it as a table. */
namespace Wire {

constexpr std::uint32_t cVersion = 1;
constexpr std::size_t cLongestTopic = 64;
constexpr std::size_t cLongestWords = 4096;
constexpr char cKnown = '+';
constexpr char cUnknown = '-';
constexpr std::string_view cLineEnd = "\r\n";
constexpr std::uint32_t cAdmitted = 0x0001'0000;
constexpr std::uint32_t cRefused = 0x0001'ffff;
constexpr std::size_t cPlaceSize = 28; ///< history, first and newest number, beat

/** What a frame holds; others are skipped. */
enum Kind : std::uint32_t { cEvent = 1, cGap = 2, cSign = 3, cLast = 4 };

/** Why a frame of kind cLast was sent. */
enum Ending : std::uint32_t { cStopped = 1, cDropped = 2 };

constexpr std::size_t cFrameHead = 8;  ///< kind and length of the rest
constexpr std::size_t cEventHead = 16; ///< the same and the event's number
constexpr std::size_t cGapRest = 24;
constexpr std::size_t cSignRest = 8;
constexpr std::size_t cLastHead = 8;           ///< of the rest: the ending and the reason's length
constexpr std::size_t cLongestReason = 65'536; ///< why a service does not want somebody; in a last frame
                                               ///< cLastHead less. A client does not read more

inline std::uint32_t intAt(const char* bytes) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return be32toh(value);
}

inline std::uint64_t numberAt(const char* bytes) {
    std::uint64_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return be64toh(value);
}

inline void putInt(char* bytes, std::uint32_t value) {
    value = htobe32(value);
    std::memcpy(bytes, &value, sizeof value);
}

inline void putNumber(char* bytes, std::uint64_t value) {
    value = htobe64(value);
    std::memcpy(bytes, &value, sizeof value);
}

inline void appendInt(VornString& sBytes, std::uint32_t value) {
    char bytes[sizeof value];
    putInt(bytes, value);
    sBytes.append(bytes, sizeof bytes);
}

inline void appendNumber(VornString& sBytes, std::uint64_t value) {
    char bytes[sizeof value];
    putNumber(bytes, value);
    sBytes.append(bytes, sizeof bytes);
}

inline void appendText(VornString& sBytes, std::string_view text) {
    appendInt(sBytes, static_cast<std::uint32_t>(text.size()));
    sBytes.append(text);
}

/** @return whether a topic may be called so. */
inline bool isTopic(std::string_view name) {
    constexpr std::string_view cAllowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    return !name.empty() && name.size() <= cLongestTopic && name.front() != '.' &&
           name.find_first_not_of(cAllowed) == std::string_view::npos;
}

} // namespace Wire

} // namespace VornNet

#endif
