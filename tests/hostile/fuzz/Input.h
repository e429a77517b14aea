// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNFUZZ_INPUT_H
#define VORNFUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/** Takes an input apart, byte by byte from the front; past the end it gives zeros. */
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

    bool empty() const { return m_size == 0; }

    std::uint8_t byte() {
        if (m_size == 0)
            return 0;
        --m_size;
        return *m_data++;
    }

    std::uint64_t number(int bytes) {
        std::uint64_t value = 0;
        while (bytes-- > 0)
            value = value << 8 | byte();
        return value;
    }

    std::string text(std::size_t size) {
        const std::size_t count = size < m_size ? size : m_size;
        std::string result(reinterpret_cast<const char*>(m_data), count);
        m_data += count;
        m_size -= count;
        return result;
    }

    std::string rest() { return text(m_size); }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
};

/** Ends the process with a message unless the condition holds; the fuzzer keeps the input. */
inline void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "violated: %s\n", what);
        std::abort();
    }
}

#endif
