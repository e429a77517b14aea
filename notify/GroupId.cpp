// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "GroupId.h"

#include <SystemCalls.h>

#include <cerrno>
#include <vector>

namespace VornNet {

std::optional<gid_t> findGroup(const VornString& sName) {
    constexpr std::size_t cLargestSize =
        16UL * 1024 * 1024; // a data base that asks for more never has enough
    std::vector<char> buffer(1024);
    group entry{};
    group* result = nullptr;
    while (System::getgrnam(sName.c_str(), &entry, buffer.data(), buffer.size(), &result) == ERANGE &&
           buffer.size() < cLargestSize)
        buffer.resize(buffer.size() * 2);
    return result != nullptr ? std::optional(result->gr_gid) : std::nullopt;
}

} // namespace VornNet
