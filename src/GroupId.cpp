// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "GroupId.h"

#include "LookUp.h"

#include <SystemCalls.h>

namespace VornNet {

std::optional<gid_t> findGroup(const VornString& sName) {
    std::vector<char> buffer;
    group entry{};
    group* result = nullptr;
    lookUp(buffer, [&](char* room, std::size_t size) {
        return System::getgrnam(sName.c_str(), &entry, room, size, &result);
    });
    return result != nullptr ? std::optional(result->gr_gid) : std::nullopt;
}

} // namespace VornNet
