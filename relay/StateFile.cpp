// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "StateFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <system_error>

#include <OwnedDescriptor.h>
#include <fcntl.h>
#include <unistd.h>

namespace VornRelay {

using VornNet::OwnedDescriptor;

void failWith(const std::string& sWhat) {
    throw std::system_error(errno, std::generic_category(), sWhat);
}

std::string readState(const std::string& sPath) {
    const OwnedDescriptor file(::open(sPath.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen()) {
        if (errno == ENOENT)
            return {};
        failWith(sPath);
    }
    std::string sContent;
    std::array<char, 65536> part;
    for (;;) {
        const ssize_t count = ::read(file.number(), part.data(), part.size());
        if (count == -1 && errno == ESRCH) // of /proc, whose process has just ended
            return {};
        if (count == -1)
            failWith(sPath);
        if (count == 0)
            return sContent;
        sContent.append(part.data(), static_cast<std::size_t>(count));
    }
}

void replaceState(const std::string& sPath, const std::string& sContent) {
    const std::string sNew = sPath + ".new";
    OwnedDescriptor file(::open(sNew.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file.isOpen())
        failWith(sNew);
    for (std::size_t nDone = 0; nDone < sContent.size();) {
        const ssize_t count = ::write(file.number(), sContent.data() + nDone, sContent.size() - nDone);
        if (count == -1)
            failWith(sNew);
        nDone += static_cast<std::size_t>(count);
    }
    if (::fsync(file.number()) == -1 || std::rename(sNew.c_str(), sPath.c_str()) == -1)
        failWith(sPath);
    // The name is on disk only when the directory is.
    const std::string sDirectory = sPath.substr(0, sPath.rfind('/') + 1);
    file.reset(::open(sDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!file.isOpen() || ::fsync(file.number()) == -1)
        failWith(sDirectory);
}

std::uint64_t nextBootNumber(const std::string& sPath) {
    const std::string sLast = readState(sPath);
    std::uint64_t nLast = 0;
    std::from_chars(sLast.data(), sLast.data() + sLast.size(), nLast);
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    const auto nNow = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count();
    const std::uint64_t nBoot = std::max(static_cast<std::uint64_t>(nNow), nLast + 1);
    replaceState(sPath, std::to_string(nBoot) + "\n");
    return nBoot;
}

} // namespace VornRelay
