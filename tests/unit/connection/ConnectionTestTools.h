// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_CONNECTIONTESTTOOLS_H
#define VORNTEST_CONNECTIONTESTTOOLS_H

#include "Failure.h"
#include "Posix.h"

#include <VornConnection.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

/**
 * @file
 * What the tests of the connections have in common: failures and results of raw operations as values that can
 * be compared and printed, and connected pairs of plain sockets.
 */
namespace VornTest {

inline const char readFailed[] = "VornConnection::get: failed read";
inline const char writeFailed[] = "VornConnection::put: transfer failed.";
inline const char serviceFailed[] = "VornConnection::connectToService: connection to remote service failed.";

/** What out-parameters hold before a call, so that one which the call leaves alone is seen. */
inline constexpr int untouched = -77;

/** What a raw read or write hands back. */
struct RawResult {
    long count = 0;
    long error = 0;

    friend bool operator==(const RawResult& left, const RawResult& right) = default;
};

inline void PrintTo(const RawResult& result, std::ostream* out) {
    *out << "count " << result.count << ", error " << result.error;
}

inline RawResult raw(long count, long error) {
    return {count, error};
}

inline RawResult rawWrite(VornNet::VornConnection& connection, const std::string& data) {
    long error = untouched;
    const long count = connection.transfer(data.data(), static_cast<long>(data.size()), &error);
    return {count, error};
}

/** Reads into the front of @p buffer. */
inline RawResult rawRead(VornNet::VornConnection& connection, std::string& buffer, long toRead,
                         bool waitForAll) {
    long error = untouched;
    const long count = connection.receive(buffer.data(), toRead, &error, waitForAll);
    return {count, error};
}

/** What a raw look hands back, and the bytes it found. */
struct PeekResult {
    bool result = false;
    int size = 0;
    int error = 0;
    std::string data;

    friend bool operator==(const PeekResult& left, const PeekResult& right) = default;
};

inline void PrintTo(const PeekResult& result, std::ostream* out) {
    *out << (result.result ? "true" : "false") << ", size " << result.size << ", error " << result.error
         << ", data \"" << result.data << '"';
}

/** The data of a look that failed is left empty. */
inline PeekResult peek(VornNet::VornConnection& connection, int size) {
    std::string buffer(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
    PeekResult result{false, size, untouched, {}};
    result.result = connection.peekBytes(buffer.data(), result.size, result.error);
    if (result.result)
        result.data = buffer.substr(0, static_cast<std::size_t>(result.size));
    return result;
}

inline PeekResult peeked(bool result, int size, int error, const std::string& data = {}) {
    return {result, size, error, data};
}

/** Two ends of one connection: @p ours goes to what is tested, @p peer stays plain. */
struct SocketPair {
    UniqueFd ours;
    UniqueFd peer;
};

inline SocketPair tcpPair() {
    int port = 0;
    const UniqueFd listener = tcpListen("127.0.0.1", port);
    UniqueFd peer = tcpConnect("127.0.0.1", port);
    UniqueFd ours = acceptClient(listener.get());
    return {std::move(ours), std::move(peer)};
}

inline SocketPair unixPair(const std::string& path) {
    const UniqueFd listener = unixListen(path);
    UniqueFd peer = unixConnect(path);
    ::unlink(path.c_str());
    UniqueFd ours = acceptClient(listener.get());
    return {std::move(ours), std::move(peer)};
}

} // namespace VornTest

#endif
