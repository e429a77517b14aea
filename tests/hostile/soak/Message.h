// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef SOAK_MESSAGE_H
#define SOAK_MESSAGE_H

#include <VornConnection.h>
#include <VornNotification.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Soak {

using namespace VornNet;

/** What a notification of the soak carries: who it is, a few numbers and a body. */
class Message : public VornNotification {
public:
    /** @param token names one attempt to deliver one event: "SERVICE:EVENT:ATTEMPT" */
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
