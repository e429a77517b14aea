// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SubscriptionRequest.h"

#include "CallbackEndpoint.h"
#include "Wire.h"

#include <optional>

namespace VornNet {

namespace {

constexpr const char* cOtherVersion = "version not supported";
constexpr const char* cNoCallback = "invalid callback address";
constexpr const char* cCallbackNotAccepted = "callback addresses are not accepted";
constexpr const char* cNoRequest = "invalid request";

constexpr std::size_t cLongestCallback = 255;

/** Takes values from the front of what has come. What is not there yet is no value. */
class Input {
public:
    explicit Input(std::string_view bytes) : m_bytes(bytes) {}

    std::optional<std::uint32_t> takeInt() {
        const auto bytes = take(sizeof(std::uint32_t));
        return bytes ? std::optional(Wire::intAt(bytes->data())) : std::nullopt;
    }

    std::optional<std::uint64_t> takeNumber() {
        const auto bytes = take(sizeof(std::uint64_t));
        return bytes ? std::optional(Wire::numberAt(bytes->data())) : std::nullopt;
    }

    std::optional<std::string_view> take(std::size_t count) {
        if (m_bytes.size() < count)
            return std::nullopt;
        const std::string_view taken = m_bytes.substr(0, count);
        m_bytes.remove_prefix(count);
        return taken;
    }

    bool isEmpty() const { return m_bytes.empty(); }

private:
    std::string_view m_bytes;
};

} // namespace

bool SubscriptionRequest::read(std::string_view bytes, bool mayCallBack) {
    Input input(bytes);
    const auto version = input.takeInt();
    if (version && *version != Wire::cVersion)
        return refuse(cOtherVersion);
    const auto callbackSize = input.takeInt();
    if (callbackSize && *callbackSize > cLongestCallback)
        return refuse(cNoCallback);
    const auto callback = callbackSize ? input.take(*callbackSize) : std::nullopt;
    if (callback && !callback->empty()) {
        const auto endpoint = CallbackEndpoint::parse(VornString(*callback));
        if (!endpoint)
            return refuse(cNoCallback);
        m_sCallbackKey = endpoint->key();
        if (!mayCallBack)
            return refuse(cCallbackNotAccepted);
    }
    const auto handle = callback ? input.takeNumber() : std::nullopt;
    const auto begin = handle ? input.takeInt() : std::nullopt;
    if (begin && *begin > static_cast<std::uint32_t>(Begin::after))
        return refuse(cNoRequest);
    const auto history = begin ? input.takeNumber() : std::nullopt;
    const auto number = history ? input.takeNumber() : std::nullopt;
    const auto wordsSize = number ? input.takeInt() : std::nullopt;
    if (wordsSize && *wordsSize > Wire::cLongestWords)
        return refuse(cNoRequest);
    const auto words = wordsSize ? input.take(*wordsSize) : std::nullopt;
    if (!words)
        return false;
    if (!input.isEmpty())
        return refuse(cNoRequest);
    m_sCallback = *callback;
    m_hCallback = static_cast<long>(*handle >> 32); // as a connection reads a long
    m_begin = static_cast<Begin>(*begin);
    m_position = {*history, *number};
    m_sWords = words->substr(0, words->find('\0')); // as a connection reads a text
    return true;
}

VornPosition SubscriptionRequest::position() const {
    return m_begin == Begin::after ? m_position : VornPosition();
}

bool SubscriptionRequest::refuse(const char* reason) {
    m_sReason = reason;
    return true;
}

} // namespace VornNet
