// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_BLOCKS_H
#define VORNBENCH_BLOCKS_H

#include "Dialogue.h"

#include <vector>

namespace Bench {

/** Plain ends that move a block of so many bytes and acknowledge it with an int. */
class PosixBlock : public PlainEnd {
public:
    PosixBlock(Road road, int fd, std::size_t size) : PlainEnd(road, fd), m_block(size, 'x') {}

    void ask() const {
        send(m_block.data(), m_block.size());
        benchmark::DoNotOptimize(receiveNumber());
    }

    void answer() {
        receive(m_block.data(), m_block.size());
        sendNumber(1);
    }

private:
    std::vector<char> m_block;
};

/** The same with put() and get(). */
class VornnetBlock {
public:
    VornnetBlock(Road road, int fd, std::size_t size)
        : m_connection(makeConnection(road, fd)), m_block(size, 'x') {}

    void ask() {
        m_connection->put(m_block.data(), static_cast<int>(m_block.size()));
        benchmark::DoNotOptimize(m_connection->receiveInt());
    }

    void answer() {
        m_connection->get(m_block.data(), static_cast<int>(m_block.size()));
        m_connection->transfer(1);
    }

private:
    std::unique_ptr<VornNet::VornConnection> m_connection;
    std::vector<char> m_block;
};

/** Plain ends that move a length and so many bytes, into memory that is allocated for them. */
class PosixString : public PlainEnd {
public:
    PosixString(Road road, int fd, std::size_t size) : PlainEnd(road, fd), m_text(size, 'x') {}

    void ask() const {
        sendNumber(static_cast<unsigned int>(m_text.size()));
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
class VornnetString {
public:
    VornnetString(Road road, int fd, std::size_t size)
        : m_connection(makeConnection(road, fd)), m_text(size, 'x') {}

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
