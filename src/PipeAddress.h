// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_PIPEADDRESS_H
#define VORNNET_PIPEADDRESS_H

#include "VornNetExport.h"

#include <VornString.h>

#include <sys/socket.h>
#include <sys/un.h>

namespace VornNet {

/** Where a pipe is: its file in the pipe directory, and that path as a socket address. */
class PipeAddress {
public:
    /** @return the path of the pipe of that short name, see VornPipeServer::getFullPipeName(). */
    static VornString pathOf(const VornString& sPipeName);

    explicit PipeAddress(const VornString& sPath);

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
