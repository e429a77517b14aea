// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "HostEntry.h"

#include "LookUp.h"

#include <SystemCalls.h>

#include <cerrno>
#include <cstring>

namespace VornNet {

template <typename Resolve>
HostEntry HostEntry::ask(Resolve&& resolve) {
    HostEntry answer;
    hostent* result = nullptr;
    lookUp(answer.m_buffer, [&](char* buffer, std::size_t size) {
        int resolverError = 0;
        // The resolver does not always set errno when it fails, and an older value would be no reason.
        errno = 0;
        const int status = resolve(&answer.m_entry, buffer, size, &result, &resolverError);
        answer.m_error = errno;
        return status;
    });
    answer.m_isFound = result != nullptr;
    return answer;
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
