// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "StoredText.h"

#include <algorithm>
#include <cstddef>
#include <sstream>

namespace VornRelay {

std::string decodedBase64(std::string_view sText) {
    static constexpr std::string_view cDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string sBytes;
    unsigned int nBits = 0;
    int nCount = 0;
    for (const char c : sText) {
        const std::size_t nDigit = cDigits.find(c);
        if (nDigit == std::string_view::npos)
            break;
        nBits = nBits << 6 | static_cast<unsigned int>(nDigit);
        nCount += 6;
        if (nCount >= 8) {
            nCount -= 8;
            sBytes.push_back(static_cast<char>(nBits >> nCount));
        }
    }
    return sBytes;
}

std::vector<std::pair<std::string, std::string>> headersIn(const std::string& sText) {
    std::vector<std::pair<std::string, std::string>> headers;
    std::istringstream lines(sText);
    for (std::string sLine; std::getline(lines, sLine);) {
        while (!sLine.empty() && sLine.back() == '\r')
            sLine.pop_back();
        const std::size_t nColon = sLine.find(':');
        if (nColon != std::string::npos)
            headers.emplace_back(
                sLine.substr(0, nColon),
                sLine.substr(std::min(sLine.find_first_not_of(' ', nColon + 1), sLine.size())));
    }
    return headers;
}

} // namespace VornRelay
