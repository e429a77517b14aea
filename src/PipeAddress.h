// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_PIPEADDRESS_H
#define VORNNET_PIPEADDRESS_H

#include "VornNetExport.h"

#include <VornString.h>

#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

namespace VornNet {

/** The socket address of a pipe's path. */
class PipeAddress {
public:
    explicit PipeAddress(const VornString& sPath) : m_address(), m_length(0), m_fits(false) {
        m_address.sun_family = AF_UNIX;
        m_fits = sPath.size() < sizeof m_address.sun_path;
        if (m_fits) {
            std::memcpy(m_address.sun_path, sPath.data(), sPath.size());
            m_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sPath.size());
        }
    }

    /** @return whether the path has room in a socket address, which holds 107 bytes. */
    bool fits() const { return m_fits; }

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&m_address); }

    socklen_t length() const { return m_length; }

private:
    sockaddr_un m_address;
    socklen_t m_length;
    bool m_fits;
};

} // namespace VornNet

#endif
