// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef SOAK_MESSAGE_H
#define SOAK_MESSAGE_H

#include <VornConnection.h>
#include <VornNotification.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Soak {

using namespace VornNet;

/** Names one attempt to deliver one event: "SERVICE:EVENT:ATTEMPT". */
std::string makeToken(int service, long event, int attempt);

/**
 * The token in the first bytes of a datagram, empty when there is none; found without knowing the encoding.
 */
std::array<char, 48> findToken(const void* data, std::size_t size);

/** What a notification of the soak carries: who it is, a few numbers and a body. */
class Message : public VornNotification {
public:
    Message(std::string token, long event, std::string body);

    void write(VornConnection& connection) const;
    static Message read(VornConnection& connection, std::string& token);

    /** A sum over all fields, the same on both sides if and only if nothing was altered. */
    std::uint64_t sum() const;

    std::size_t size() const { return m_body.size(); }

private:
    std::string m_token;
    long m_event;
    short m_small;
    std::string m_body;
};

} // namespace Soak

#endif
