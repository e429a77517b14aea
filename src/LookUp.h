// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_LOOKUP_H
#define VORNNET_LOOKUP_H

#include "VornNetExport.h"

#include <cerrno>
#include <cstddef>
#include <vector>

namespace VornNet {

/**
 * Looks something up in a data base of the system, which puts its answer into a buffer of the caller and
 * reports ERANGE when that is too small.
 * @param ask gets the buffer and its size, and returns an error number
 */
template <typename Ask>
void lookUp(std::vector<char>& buffer, Ask&& ask) {
    constexpr std::size_t cUsualSize = 1024;
    constexpr std::size_t cLargestSize =
        16UL * 1024 * 1024; // a data base that asks for more never has enough
    buffer.resize(cUsualSize);
    while (ask(buffer.data(), buffer.size()) == ERANGE && buffer.size() < cLargestSize)
        buffer.resize(buffer.size() * 2);
}

} // namespace VornNet

#endif
