// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "HostEntry.h"

#include <SystemCalls.h>

#include <cerrno>
#include <cstring>

namespace VornNet {

template <typename LookUp>
HostEntry HostEntry::ask(LookUp&& lookUp) {
    constexpr std::size_t cUsualSize = 1024;
    constexpr std::size_t cLargestSize =
        16UL * 1024 * 1024; // a resolver that asks for more will ask for ever
    HostEntry answer;
    answer.m_buffer.resize(cUsualSize);
    for (;;) {
        hostent* result = nullptr;
        int resolverError = 0;
        // The resolver does not always set errno when it fails, and an older value would be no reason.
        errno = 0;
        const int status =
            lookUp(&answer.m_entry, answer.m_buffer.data(), answer.m_buffer.size(), &result, &resolverError);
        answer.m_error = errno;
        if (status != ERANGE || answer.m_buffer.size() == cLargestSize) {
            answer.m_isFound = result != nullptr;
            return answer;
        }
        answer.m_buffer.resize(answer.m_buffer.size() * 2);
    }
}

HostEntry HostEntry::byName(const char* name) {
    return ask([name](hostent* entry, char* buffer, std::size_t size, hostent** result, int* error) {
        return System::gethostbyname(name, entry, buffer, size, result, error);
    });
}

HostEntry HostEntry::byAddress(const void* address, socklen_t length) {
    return ask([=](hostent* entry, char* buffer, std::size_t size, hostent** result, int* error) {
        return System::gethostbyaddr(address, length, AF_INET, entry, buffer, size, result, error);
    });
}

in_addr HostEntry::firstAddress() const {
    in_addr address{};
    std::memcpy(&address, m_entry.h_addr_list[0], sizeof address);
    return address;
}

} // namespace VornNet
