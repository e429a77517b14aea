// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_RAWSENDER_H
#define VORNTEST_RAWSENDER_H

#include <functional>
#include <string>

namespace VornTest {

/** A sender of notifications that goes past the functions into which faults are injected, by syscall(2). */
class RawSender {
public:
    /** @param isGivenUp ends the wait for a receiver that does not close */
    explicit RawSender(std::function<bool()> isGivenUp);

    /**
     * Sends handle and content to a callback address, and over a stream waits until the receiver has closed.
     * @return false when the address names no host
     */
    bool send(const std::string& address, long handle, long content) const;

    /** @return a descriptor connected to a callback address, or -1 */
    static int connectTo(const std::string& address);

private:
    void awaitEnd(int fd) const;

    std::function<bool()> m_isGivenUp;
};

} // namespace VornTest

#endif
