// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Loaded before the C library (LD_PRELOAD) it cuts every send() and recv() on a stream of whatever program it
// is loaded into: to one byte, or with VORNTEST_CUT_SEED to a random number of bytes from 1 to 16.
//
// A look at what is waiting (MSG_PEEK) is not cut: by contract a line of which only a part is seen is none.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>

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

/** The next number of a sequence that its start determines; splitmix64. */
std::uint64_t nextRandom(std::uint64_t seed) {
    static std::atomic<std::uint64_t> state{seed};
    std::uint64_t value = state.fetch_add(0x9E3779B97F4A7C15U) + 0x9E3779B97F4A7C15U;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31);
}

std::size_t cut(int fd, std::size_t length) {
    static const char* const seed = std::getenv("VORNTEST_CUT_SEED");
    if (length == 0 || !isStream(fd))
        return length;
    const std::size_t most = seed == nullptr ? 1 : 1 + nextRandom(std::strtoul(seed, nullptr, 10)) % 16;
    return std::min(length, most);
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
