// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_HOSTENTRY_H
#define VORNNET_HOSTENTRY_H

#include "VornNetExport.h"

#include <netdb.h>
#include <netinet/in.h>

#include <cstddef>
#include <vector>

namespace VornNet {

/** An answer of the resolver. It has a buffer of its own, so any number of threads may ask at once. */
class HostEntry {
public:
    /** Looks a name up, see gethostbyname(3). */
    static HostEntry byName(const char* name);

    /** Looks an address up, see gethostbyaddr(3). @param length what the resolver is told of its length */
    static HostEntry byAddress(const void* address, socklen_t length);

    /** @return whether there is an answer. */
    bool isFound() const { return m_isFound; }

    /** @return errno as the failed look-up left it. */
    int error() const { return m_error; }

    /** @return the official name; only of an answer. */
    const char* name() const { return m_entry.h_name; }

    /** @return the addresses, of addressLength() bytes each, then null; only of an answer. */
    char** addresses() const { return m_entry.h_addr_list; }

    /** @return the length of an address in bytes; only of an answer. */
    std::size_t addressLength() const { return static_cast<std::size_t>(m_entry.h_length); }

    /** @return the first address; only of an answer. */
    in_addr firstAddress() const;

    // The answer points into its buffer, whose contents a move leaves where they are.
    HostEntry(HostEntry&&) = default;
    HostEntry& operator=(HostEntry&&) = default;

private:
    HostEntry() = default;

    template <typename Resolve>
    static HostEntry ask(Resolve&& resolve);

    hostent m_entry{};
    std::vector<char> m_buffer;
    bool m_isFound = false;
    int m_error = 0;
};

} // namespace VornNet

#endif
