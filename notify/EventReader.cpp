// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "EventReader.h"

#include <algorithm>
#include <cstddef>

namespace VornNet {

EventReader::EventReader(std::string_view content) : m_content(content) {
    m_bConnected = true;
}

void EventReader::disconnect() {}

long EventReader::transfer(const char* /*buf*/, long bufLen, long* error) {
    *error = 0;
    return std::max(bufLen, 0L);
}

long EventReader::receive(char* bufPtr, long toRead, long* error, bool /*bWaitForAll*/) {
    *error = 0;
    const std::size_t count = m_content.copy(bufPtr, static_cast<std::size_t>(std::max(toRead, 0L)));
    m_content.remove_prefix(count);
    return static_cast<long>(count);
}

bool EventReader::peekBytes(void* pBuffer, int& nSize, int& nErrorCode) {
    nErrorCode = 0;
    nSize = static_cast<int>(
        m_content.copy(static_cast<char*>(pBuffer), static_cast<std::size_t>(std::max(nSize, 0))));
    return nSize != 0;
}

int EventReader::establishImpl(VornString& /*sExceptionMessage*/) {
    return 0;
}

} // namespace VornNet
