// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PipeListener.h"

#include "SystemError.h"

#include <VornPipeServer.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <system_error>
#include <tuple>
#include <utility>

#include <sys/un.h>

namespace VornNet {

namespace {

constexpr mode_t cOwnerOnly = 0700;
constexpr mode_t cOwnerAndGroup = 0770;

/** The socket address of a path that fits. */
struct Address {
    explicit Address(const VornString& sPath)
        : length(static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sPath.size())) {
        unixAddress.sun_family = AF_UNIX;
        std::memcpy(unixAddress.sun_path, sPath.data(), sPath.size());
    }

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&unixAddress); }

    sockaddr_un unixAddress{};
    socklen_t length;
};

/** Throws what errno says. Two numbers of the kernel mean that there is no permission. */
[[noreturn]] void fail() {
    throwSystemError(errno == EPERM ? EACCES : errno);
}

OwnedDescriptor makeSocket(int nType) {
    return OwnedDescriptor::opened(System::socket(AF_UNIX, nType | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

VornString makeUniqueName() {
    std::uint32_t nRandom = 0;
    if (System::getrandom(&nRandom, sizeof nRandom, GRND_NONBLOCK) != sizeof nRandom) {
        // bind() decides in the end; the clock is good enough to find a free name.
        nRandom = static_cast<std::uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    }
    std::array<char, 32> name;
    std::snprintf(name.data(), name.size(), "quorax%x-%08x", static_cast<unsigned int>(System::getpid()),
                  nRandom);
    return name.data();
}

bool isSame(const struct stat& a, const struct stat& b) {
    return std::tie(a.st_dev, a.st_ino) == std::tie(b.st_dev, b.st_ino);
}

/**
 * Takes the file of a dead server out of the way.
 *
 * Two processes may find the same dead file, and the first may have put its own in its place by now. So the
 * file is moved aside first, and moved back when it turns out to be another one.
 * @return whether the name may be free now
 */
bool removeDead(const VornString& sName) {
    const VornString sPath = VornPipeServer::getFullPipeName(sName);

    struct stat found {};

    if (System::lstat(sPath.c_str(), &found) == -1) {
        if (errno == ENOENT)
            return true;
        fail();
    }
    if (!S_ISSOCK(found.st_mode) || PipeListener::isAlive(sName))
        return false;
    const VornString sAside = VornPipeServer::getFullPipeName(makeUniqueName());
    if (System::renameat2(AT_FDCWD, sPath.c_str(), AT_FDCWD, sAside.c_str(), RENAME_NOREPLACE) == -1) {
        if (errno == ENOENT || errno == EEXIST)
            return true;
        fail();
    }

    struct stat moved {};

    if (System::lstat(sAside.c_str(), &moved) == 0 && isSame(found, moved))
        System::unlink(sAside.c_str());
    else
        System::renameat2(AT_FDCWD, sAside.c_str(), AT_FDCWD, sPath.c_str(), RENAME_NOREPLACE);
    return true;
}

} // namespace

bool PipeListener::isName(const VornString& sName) {
    // A zero byte would end the path early, and lead to somebody else's pipe.
    const bool isPlain = sName.find('/') == VornString::npos && sName.find('\0') == VornString::npos;
    const VornString sPath = VornPipeServer::getFullPipeName(sName);
    return isPlain && !sName.empty() && sName != "." && sName != ".." &&
           sPath.size() < sizeof(sockaddr_un::sun_path);
}

bool PipeListener::isAlive(const VornString& sName) {
    if (!isName(sName))
        return false;
    const Address address(VornPipeServer::getFullPipeName(sName));
    // The kernel looks for the socket first and for its type afterwards.
    const OwnedDescriptor probe(System::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return System::connect(probe.number(), address.get(), address.length) == 0 ||
           (errno != ECONNREFUSED && errno != ENOENT);
}

PipeListener PipeListener::openUnique(std::optional<gid_t> group) {
    constexpr int cTries = 100; // of 2^32 names, so that only a system that is out of order sees the last one
    for (int nTry = 1;; ++nTry) {
        try {
            return openFree(makeUniqueName(), group);
        } catch (const std::system_error& error) {
            if (error.code().value() != EADDRINUSE || nTry == cTries)
                throw;
        }
    }
}

PipeListener PipeListener::openNamed(const VornString& sName, std::optional<gid_t> group) {
    constexpr int cTries = 10; // others may come and go at that name meanwhile
    for (int nTry = 1;; ++nTry) {
        try {
            return openFree(sName, group);
        } catch (const std::system_error& error) {
            if (error.code().value() != EADDRINUSE || nTry == cTries || !removeDead(sName))
                throw;
        }
    }
}

PipeListener PipeListener::openFree(const VornString& sName, std::optional<gid_t> group) {
    const VornString sPath = VornPipeServer::getFullPipeName(sName);
    const Address address(sPath);
    PipeListener listener(makeSocket(SOCK_STREAM), sName, sPath);
    // bind() makes the file with the socket's mode, so it is never open to others, whatever the umask.
    System::fchmod(listener.descriptor(), cOwnerOnly);
    if (System::bind(listener.descriptor(), address.get(), address.length) == -1)
        fail();
    try {
        listener.finish(group);
    } catch (const std::exception&) {
        listener.removeFile();
        throw;
    }
    return listener;
}

PipeListener::File PipeListener::look() const {
    struct stat found {};

    if (System::lstat(m_sPath.c_str(), &found) == -1)
        return errno == ENOENT ? File::gone : File::unknown;
    return std::tie(found.st_dev, found.st_ino) == std::tie(m_device, m_inode) ? File::own : File::foreign;
}

void PipeListener::removeFile() const {
    if (look() == File::own)
        System::unlink(m_sPath.c_str());
}

PipeListener::PipeListener(OwnedDescriptor&& socket, const VornString& sName, const VornString& sPath)
    : m_socket(std::move(socket)), m_sName(sName), m_sPath(sPath) {}

void PipeListener::finish(std::optional<gid_t> group) {
    struct stat own {};

    if (System::lstat(m_sPath.c_str(), &own) == -1) {
        const int code = errno;
        System::unlink(m_sPath.c_str()); // it was made just now
        throwSystemError(code);
    }
    m_device = own.st_dev;
    m_inode = own.st_ino;
    if (System::listen(m_socket.number(), SOMAXCONN) == -1)
        fail();
    if (group.has_value() && System::chown(m_sPath.c_str(), System::getuid(), *group) == -1)
        fail();
    if (System::chmod(m_sPath.c_str(), cOwnerAndGroup) == -1)
        fail();
    // A library's server does not ask before it takes a name over.
    if (look() != File::own)
        throwSystemError(EADDRINUSE);
}

} // namespace VornNet
