// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Message.h"

#include <string_view>
#include <utility>

namespace Soak {

namespace {

std::uint64_t addTo(std::uint64_t sum, std::string_view bytes) {
    for (const char byte : bytes)
        sum = (sum ^ static_cast<unsigned char>(byte)) * 1099511628211U;
    return sum;
}

} // namespace

Message::Message(std::string token, long event, std::string body)
    : VornNotification(static_cast<int>(event)), m_token(std::move(token)), m_event(event),
      m_small(static_cast<short>(-event)), m_body(std::move(body)) {}

void Message::write(VornConnection& connection) const {
    connection.transfer(m_token);
    connection.transfer(m_event);
    connection.transfer(m_small);
    connection.transfer(m_body); // never empty: whoever has written the last byte has written all
}

Message Message::read(VornConnection& connection, std::string& token) {
    token = connection.receiveString();
    const long event = connection.receiveLong();
    const short small = connection.receiveShort();
    Message message(token, event, connection.receiveString());
    message.m_small = small;
    return message;
}

std::uint64_t Message::sum() const {
    std::uint64_t result = addTo(14695981039346656037U, m_token);
    result = addTo(result, std::to_string(m_event) + "/" + std::to_string(m_small) + "/");
    return addTo(result, m_body);
}

} // namespace Soak
