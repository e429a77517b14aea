// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_NOTIFICATIONNUMBER_H
#define VORNRELAY_NOTIFICATIONNUMBER_H

#include <charconv>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace VornRelay {

/** Which of a host's notifications it is: later ones have higher numbers, also after a restart. */
struct NotificationNumber {
    std::uint64_t nBoot = 0; ///< of the relay's start
    std::uint64_t nCount = 0;

    auto operator<=>(const NotificationNumber&) const = default;
};

/** @return "host.boot.count", which the engine takes for the message's identity. */
inline std::string idOf(std::string_view sHost, const NotificationNumber& number) {
    return std::string(sHost) + "." + std::to_string(number.nBoot) + "." + std::to_string(number.nCount);
}

/** @return the identity of a notification to which the sender has given one himself. */
inline std::string givenIdOf(std::string_view sHost, std::string_view sId) {
    return std::string(sHost) + ".id." + std::string(sId);
}

/** @return the number in "host.boot.count", if it is one of that host. */
inline std::optional<NotificationNumber> numberIn(std::string_view sId, std::string_view sHost) {
    if (sId.size() <= sHost.size() || !sId.starts_with(sHost) || sId[sHost.size()] != '.')
        return std::nullopt;
    NotificationNumber number;
    const char* pEnd = sId.data() + sId.size();
    const auto boot = std::from_chars(sId.data() + sHost.size() + 1, pEnd, number.nBoot);
    if (boot.ec != std::errc() || boot.ptr == pEnd || *boot.ptr != '.')
        return std::nullopt;
    const auto count = std::from_chars(boot.ptr + 1, pEnd, number.nCount);
    if (count.ec != std::errc() || count.ptr != pEnd)
        return std::nullopt;
    return number;
}

} // namespace VornRelay

#endif
