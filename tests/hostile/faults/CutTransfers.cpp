// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Loaded before the C library (LD_PRELOAD) it cuts every send() and recv() on a stream of whatever program it
// is loaded into: to one byte, to two and to three in turn.
//
// A look at what is waiting (MSG_PEEK) is not cut: by contract a line of which only a part is seen is none.

#include <algorithm>
#include <atomic>
#include <cstddef>

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool isStream(int fd) {
    int type = 0;
    socklen_t length = sizeof type;
    // Not by getsockopt(), which tests have fail.
    return ::syscall(SYS_getsockopt, fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

std::size_t cut(int fd, std::size_t length) {
    static std::atomic<std::size_t> calls{0};
    return isStream(fd) ? std::min(length, 1 + calls++ % 3) : length;
}

template <typename Function>
Function realFunction(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t send(int fd, const void* data, std::size_t length,
                                                               int flags) {
    static const auto real = realFunction<decltype(&::send)>("send");
    return real(fd, data, cut(fd, length), flags);
}

extern "C" __attribute__((visibility("default"))) ssize_t recv(int fd, void* data, std::size_t length,
                                                               int flags) {
    static const auto real = realFunction<decltype(&::recv)>("recv");
    return real(fd, data, (flags & MSG_PEEK) != 0 ? length : cut(fd, length), flags);
}
