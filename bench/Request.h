// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_REQUEST_H
#define VORNBENCH_REQUEST_H

#include "Dialogue.h"

#include <VornBufferConnection.h>

#include <algorithm>
#include <array>
#include <cstring>

/** @file
 *  A request of an int and a text of 100 bytes, and an int in reply.
 */
namespace Bench {

constexpr unsigned int cText = 100;
constexpr std::size_t cRequest = 4 + 4 + cText;

using RequestBytes = std::array<unsigned char, cRequest>;

inline RequestBytes encoded() {
    RequestBytes bytes;
    storeInt(bytes.data(), 7);
    storeInt(bytes.data() + 4, cText);
    std::memset(bytes.data() + 8, 'x', cText);
    return bytes;
}

/** The calls of the library's ends: the request in one piece, read value by value. */
class PosixRequest : public PlainEnd {
public:
    using PlainEnd::PlainEnd;

    void ask() const {
        const RequestBytes request = encoded();
        send(request.data(), request.size());
        benchmark::DoNotOptimize(receiveNumber());
    }

    void answer() const {
        const unsigned int number = receiveNumber();
        std::array<char, cText> text;
        receive(text.data(), std::min<std::size_t>(receiveNumber(), text.size()));
        sendNumber(number + 1);
    }
};

/** The request composed in memory and sent by one raw write. */
class VornnetRequest {
public:
    VornnetRequest(Road road, int fd) : m_connection(makeConnection(road, fd)), m_text(cText, 'x') {}

    void ask() {
        VornNet::VornBufferConnection request;
        request.transfer(7);
        request.transfer(m_text);
        long error = 0;
        m_connection->transfer(static_cast<const char*>(request.buf()), request.size(), &error);
        benchmark::DoNotOptimize(m_connection->receiveInt());
    }

    void answer() {
        const int number = m_connection->receiveInt();
        const VornNet::VornString text = m_connection->receiveString();
        m_connection->transfer(number + 1);
    }

protected:
    VornNet::VornConnection& connection() { return *m_connection; }

    const VornNet::VornString& text() const { return m_text; }

private:
    std::unique_ptr<VornNet::VornConnection> m_connection;
    const VornNet::VornString m_text;
};

} // namespace Bench

#endif
