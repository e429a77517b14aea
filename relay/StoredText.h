// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_STOREDTEXT_H
#define VORNRELAY_STOREDTEXT_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VornRelay {

/** @return the bytes of a content or of headers as the engine puts them into JSON. */
std::string decodedBase64(std::string_view sText);

/** @return the headers in a text: a line with the version, then "Name: value" lines. */
std::vector<std::pair<std::string, std::string>> headersIn(const std::string& sText);

} // namespace VornRelay

#endif
