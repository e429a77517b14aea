// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_BLOCKS_H
#define VORNBENCH_BLOCKS_H

#include "Dialogue.h"

#include <vector>

namespace Bench {

/** Plain ends that move a block of @p Size bytes and acknowledge it with an int. */
template <std::size_t Size>
class PosixBlock : public PlainEnd {
public:
    PosixBlock(Road road, int fd) : PlainEnd(road, fd), m_block(Size, 'x') {}

    void ask() const {
        send(m_block.data(), Size);
        benchmark::DoNotOptimize(receiveNumber());
    }

    void answer() {
        receive(m_block.data(), Size);
        sendNumber(1);
    }

private:
    std::vector<char> m_block;
};

/** The same with put() and get(). */
template <std::size_t Size>
class VornnetBlock {
public:
    VornnetBlock(Road road, int fd) : m_connection(makeConnection(road, fd)), m_block(Size, 'x') {}

    void ask() {
        m_connection->put(m_block.data(), static_cast<int>(Size));
        benchmark::DoNotOptimize(m_connection->receiveInt());
    }

    void answer() {
        m_connection->get(m_block.data(), static_cast<int>(Size));
        m_connection->transfer(1);
    }

private:
    std::unique_ptr<VornNet::VornConnection> m_connection;
    std::vector<char> m_block;
};

/** Plain ends that move a length and so many bytes, into memory that is allocated for them. */
template <std::size_t Size>
class PosixString : public PlainEnd {
public:
    PosixString(Road road, int fd) : PlainEnd(road, fd), m_text(Size, 'x') {}

    void ask() const {
        sendNumber(Size);
        send(m_text.data(), m_text.size());
        benchmark::DoNotOptimize(receiveNumber());
    }

    void answer() const {
        const unsigned int size = receiveNumber();
        const std::unique_ptr<char, decltype(&std::free)> text(static_cast<char*>(std::malloc(size + 1)),
                                                               &std::free);
        receive(text.get(), size);
        benchmark::DoNotOptimize(text.get());
        sendNumber(1);
    }

private:
    const std::string m_text;
};

/** The same with strings. */
template <std::size_t Size>
class VornnetString {
public:
    VornnetString(Road road, int fd) : m_connection(makeConnection(road, fd)), m_text(Size, 'x') {}

    void ask() {
        m_connection->transfer(m_text);
        benchmark::DoNotOptimize(m_connection->receiveInt());
    }

    void answer() {
        VornNet::VornString text = m_connection->receiveString();
        benchmark::DoNotOptimize(text);
        m_connection->transfer(1);
    }

private:
    std::unique_ptr<VornNet::VornConnection> m_connection;
    const VornNet::VornString m_text;
};

} // namespace Bench

#endif
