// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Takes any text apart as a callback address, beside rules that are written as plainly as possible.

#include "CallbackAddress.h"
#include "Input.h"

#include <stdexcept>

using VornNet::CallbackAddress;

namespace {

struct Rule {
    const char* prefix;
    CallbackAddress::Kind kind;
};

const Rule* findRule(const std::string& text) {
    static const Rule rules[] = {{"udp", CallbackAddress::Kind::udp},
                                 {"pipe", CallbackAddress::Kind::pipe},
                                 {"socket", CallbackAddress::Kind::tcp},
                                 {"ssl", CallbackAddress::Kind::ssl}};
    for (const Rule& rule : rules) {
        if (text.rfind(rule.prefix, 0) == 0)
            return &rule;
    }
    return nullptr;
}

void checkParts(const CallbackAddress& address, const std::string& part) {
    if (address.kind == CallbackAddress::Kind::pipe) {
        require(address.host == part, "a pipe's name is the whole part");
        return;
    }
    const std::size_t colon = part.find(':');
    const std::string port = colon == std::string::npos ? part : part.substr(colon + 1);
    require(address.host == part.substr(0, colon), "the host stands before the first colon");
    require(address.port == static_cast<int>(std::strtol(port.c_str(), nullptr, 10)),
            "the port stands behind it");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = Input(data, size).rest();
    const Rule* rule = findRule(text);
    try {
        const CallbackAddress address(text);
        require((address.kind == CallbackAddress::Kind::unknown) == (rule == nullptr),
                "a known kind is known");
        if (rule == nullptr)
            return 0;
        require(address.kind == rule->kind, "the prefix decides the kind");
        checkParts(address, text.substr(std::string(rule->prefix).size() + 1));
    } catch (const std::out_of_range&) {
        require(rule != nullptr && text == rule->prefix, "only a bare kind is too short");
    }
    return 0;
}
