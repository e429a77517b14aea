// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Message.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace Soak {

namespace {

constexpr std::string_view mark = "soak=";

std::uint64_t addTo(std::uint64_t sum, std::string_view bytes) {
    for (const char byte : bytes)
        sum = (sum ^ static_cast<unsigned char>(byte)) * 1099511628211U;
    return sum;
}

} // namespace

std::string makeToken(int service, long event, int attempt) {
    return std::to_string(service) + ":" + std::to_string(event) + ":" + std::to_string(attempt);
}

std::array<char, 48> findToken(const void* data, std::size_t size) {
    constexpr std::size_t headSize = 256; // the headers of a frame included
    std::array<char, 48> token{};
    const std::string_view head(static_cast<const char*>(data), std::min(size, headSize));
    const std::size_t at = head.find(mark);
    if (at == std::string_view::npos)
        return token;
    const std::string_view rest = head.substr(at + mark.size());
    const std::size_t length = std::min(rest.find_first_not_of("0123456789:"), rest.size());
    std::memcpy(token.data(), rest.data(), std::min(length, token.size() - 1));
    return token;
}

Message::Message(std::string token, long event, std::string body)
    : VornNotification(static_cast<int>(event)), m_token(std::move(token)), m_event(event),
      m_small(static_cast<short>(-event)), m_body(std::move(body)) {}

void Message::write(VornConnection& connection) const {
    connection.transfer(std::string(mark) + m_token + ";");
    connection.transfer(m_event);
    connection.transfer(m_small);
    connection.transfer(m_body); // never empty: whoever has written the last byte has written all
}

Message Message::read(VornConnection& connection, std::string& token) {
    const std::string first = connection.receiveString();
    token = findToken(first.data(), first.size()).data();
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
