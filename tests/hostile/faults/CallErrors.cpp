// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Scenarios.h"

#include <cerrno>
#include <map>

#include <netdb.h>

namespace VornTest {

namespace {

using ErrorLists = std::map<std::string, std::vector<int>>;

// Those of send(2) and sendto(2), with what unix(7), ip(7), tcp(7) and udp(7) add.
const std::vector<int> sending = {
    EACCES, EAGAIN,     EALREADY,     EBADF,     ECONNREFUSED, ECONNRESET, EDESTADDRREQ, EFAULT,
    EINTR,  EINVAL,     EISCONN,      EMSGSIZE,  ENOBUFS,      ENOMEM,     ENOTCONN,     ENOTSOCK,
    EPIPE,  EOPNOTSUPP, EHOSTUNREACH, ETIMEDOUT, EPERM,        ENETDOWN,   ENETUNREACH,
};

// Those of recv(2), of which EMSGSIZE is left out: by contract it reads one byte before the buffer, which has
// a test of its own.
const std::vector<int> receiving = {
    EAGAIN, EBADF,    ECONNREFUSED, ECONNRESET, EFAULT, EHOSTUNREACH, EINTR,
    EINVAL, ENETDOWN, ENOMEM,       ENOTCONN,   EPERM,  ENOTSOCK,     ETIMEDOUT,
};

std::vector<int> with(std::vector<int> list, std::initializer_list<int> more) {
    list.insert(list.end(), more);
    return list;
}

ErrorLists socketErrors() {
    return {
        // Linux passes errors of the new connection on, some of which end a wait.
        {"accept",
         {EAGAIN, EBADF,    ECONNABORTED, EFAULT, EHOSTDOWN, EHOSTUNREACH, EINTR,           EINVAL,
          EMFILE, ENETDOWN, ENETUNREACH,  ENFILE, ENOBUFS,   ENOMEM,       ENONET,          ENOPROTOOPT,
          ENOSR,  ENOTSOCK, EOPNOTSUPP,   EPERM,  EPROTO,    ETIMEDOUT,    EPROTONOSUPPORT, ESOCKTNOSUPPORT}},
        {"bind",
         {EACCES, EADDRINUSE, EADDRNOTAVAIL, EBADF, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM,
          ENOTDIR, EROFS, ENOTSOCK, ENOBUFS}},
        {"connect", {EACCES,  EADDRINUSE,   EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN,      EALREADY,  EBADF,
                     EFAULT,  ECONNREFUSED, ECONNRESET,    EHOSTUNREACH, EINPROGRESS, EINTR,     EINVAL,
                     EISCONN, ENETUNREACH,  ENOENT,        ENOTSOCK,     EPROTOTYPE,  ETIMEDOUT, EPERM}},
        {"getsockname", {EBADF, EFAULT, EINVAL, ENOBUFS, ENOTSOCK}},
        {"getsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
        {"listen", {EADDRINUSE, EBADF, ENOTSOCK, EOPNOTSUPP}},
        {"recv", receiving},
        {"recvfrom", with(receiving, {EHOSTDOWN, ENONET})},
        {"send", sending},
        {"sendto", sending},
        {"setsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
        {"shutdown", {EBADF, EINVAL, ENOTCONN, ENOTSOCK}},
        {"socket",
         {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT, ESOCKTNOSUPPORT}},
    };
}

ErrorLists fileErrors() {
    const std::vector<int> ofPath = {EACCES, EFAULT, EIO,   ELOOP, ENAMETOOLONG, ENOENT,
                                     ENOMEM, EPERM,  EROFS, EBADF, EINVAL,       ENOTDIR};
    return {
        {"chmod", with(ofPath, {ENOTSUP})},
        {"chown", ofPath},
        {"close", {EBADF, EINTR, EIO, ENOSPC, EDQUOT}},
        {"eventfd", {EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM}},
        {"fchmod", {EBADF, EIO, EPERM, EROFS, EINVAL, ENOTSUP}},
        {"fcntl", {EACCES, EAGAIN, EBADF, EINVAL, EPERM}},
        {"fstat", {EBADF, EFAULT, ENOMEM, EOVERFLOW}},
        {"pipe", {EFAULT, EINVAL, EMFILE, ENFILE, ENOPKG}},
        {"poll", {EFAULT, EINTR, EINVAL, ENOMEM}},
        {"read", {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR}},
        {"select", {EBADF, EINTR, EINVAL, ENOMEM}},
        {"unlink", with(ofPath, {EBUSY, EISDIR})},
        {"write",
         {EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE}},
    };
}

ErrorLists lookUpErrors() {
    return {
        {"getgrnam_r", {EINTR, EIO, EMFILE, ENFILE, ENOMEM, ERANGE}},
        {"gethostbyaddr_r", {HOST_NOT_FOUND, NO_DATA, NO_RECOVERY, TRY_AGAIN, ERANGE}},
        {"gethostbyname_r", {HOST_NOT_FOUND, NO_DATA, NO_RECOVERY, TRY_AGAIN, ERANGE}},
    };
}

} // namespace

const std::vector<int>& errorsOf(const std::string& function) {
    static const ErrorLists errors = [] {
        ErrorLists all = socketErrors();
        all.merge(fileErrors());
        all.merge(lookUpErrors());
        return all;
    }();
    return errors.at(function);
}

} // namespace VornTest
