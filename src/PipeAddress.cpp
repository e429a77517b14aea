// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PipeAddress.h"

#include <LogRecord.h>

#include <cstddef>
#include <cstring>

namespace VornNet {

namespace {

constexpr const char* cDirectory = "/opt/vorn/hostmgr/var/lib/kestrel/rendez/";

} // namespace

VornString PipeAddress::pathOf(const VornString& sPipeName) {
    VornString sPath;
    sPath.reserve(VornString::traits_type::length(cDirectory) + sPipeName.size());
    sPath.append(cDirectory).append(sPipeName);
    logRecord(VornLogging::cDebug, "VornPipeServer::getFullPipeName () : sFullPipeName is : ", sPath);
    return sPath;
}

PipeAddress::PipeAddress(const VornString& sPath) : m_address(), m_length(0), m_fits(false) {
    m_address.sun_family = AF_UNIX;
    m_fits = sPath.size() < sizeof m_address.sun_path;
    if (m_fits) {
        std::memcpy(m_address.sun_path, sPath.data(), sPath.size());
        m_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sPath.size());
    }
}

} // namespace VornNet
