// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_FAILURE_H
#define VORNTEST_FAILURE_H

#include <VornException.h>

#include <optional>
#include <ostream>
#include <string>

namespace VornTest {

/** What a VornException says, as a value that can be compared and printed. */
struct Failure {
    std::string text;
    int code = 0;

    friend bool operator==(const Failure& left, const Failure& right) = default;
};

inline void PrintTo(const Failure& failure, std::ostream* out) {
    *out << '"' << failure.text << "\", code " << failure.code;
}

inline Failure failure(const std::string& text, int code) {
    return {text, code};
}

/** The VornException that @p operation ends with, if it does. */
template <typename Operation>
std::optional<Failure> failureOf(Operation&& operation) {
    try {
        operation();
        return std::nullopt;
    } catch (const VornSupport::VornException& exception) {
        return Failure{exception.getText(), exception.getCode()};
    }
}

/** The same as one text, or "nothing". */
template <typename Operation>
std::string thrownBy(Operation&& operation) {
    const std::optional<Failure> failure = failureOf(operation);
    return failure ? failure->text + " " + std::to_string(failure->code) : "nothing";
}

} // namespace VornTest

#endif
