// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_CUTS_H
#define VORNTEST_CUTS_H

#include "Interpose.h"

#include <climits>
#include <cstddef>
#include <mutex>
#include <optional>
#include <random>

namespace VornTest {

/**
 * Makes each send() and recv() deal with another random number of bytes, from 1 to a most, while it exists.
 */
class RandomCuts {
public:
    RandomCuts(unsigned int seed, std::size_t most)
        : m_random(seed), m_lengths(1, most), m_limit(std::in_place, most),
          m_sending(
              "send", [this] { cut(); }, INT_MAX),
          m_receiving(
              "recv", [this] { cut(); }, INT_MAX) {}

private:
    void cut() {
        const std::lock_guard lock(m_lock);
        m_limit.reset();
        m_limit.emplace(m_lengths(m_random));
    }

    std::mutex m_lock;
    std::mt19937 m_random;
    std::uniform_int_distribution<std::size_t> m_lengths;
    std::optional<TransferLimit> m_limit;
    CallHook m_sending;
    CallHook m_receiving;
};

} // namespace VornTest

#endif
