// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Posix.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace VornTest {

namespace {

constexpr int guardSeconds = 10;

[[noreturn]] void fail(const std::string& what, int error = errno) {
    throw std::system_error(error, std::generic_category(), what);
}

struct Address {
    sockaddr_storage storage = {};
    socklen_t length = sizeof(sockaddr_storage);

    sockaddr* generic() { return reinterpret_cast<sockaddr*>(&storage); }

    const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&storage); }

    sockaddr_in& v4() { return reinterpret_cast<sockaddr_in&>(storage); }

    sockaddr_in6& v6() { return reinterpret_cast<sockaddr_in6&>(storage); }

    int family() const { return storage.ss_family; }
};

in_port_t networkPort(int port) {
    if (port < 0 || port > std::numeric_limits<in_port_t>::max())
        fail("port " + std::to_string(port), EINVAL);
    return htons(static_cast<in_port_t>(port));
}

Address inetAddress(const std::string& text, int port) {
    Address result;
    if (::inet_pton(AF_INET, text.c_str(), &result.v4().sin_addr) == 1) {
        result.v4().sin_family = AF_INET;
        result.v4().sin_port = networkPort(port);
        result.length = sizeof(sockaddr_in);
    } else if (::inet_pton(AF_INET6, text.c_str(), &result.v6().sin6_addr) == 1) {
        result.v6().sin6_family = AF_INET6;
        result.v6().sin6_port = networkPort(port);
        result.length = sizeof(sockaddr_in6);
    } else {
        fail("no numeric address: " + text, EINVAL);
    }
    return result;
}

Address unixAddress(const std::string& path) {
    Address result;
    sockaddr_un& address = reinterpret_cast<sockaddr_un&>(result.storage);
    if (path.size() >= sizeof(address.sun_path))
        fail(path, ENAMETOOLONG);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    result.length = sizeof(sockaddr_un);
    return result;
}

std::string addressText(Address address) {
    std::array<char, INET6_ADDRSTRLEN> text = {};
    const bool isV6 = address.family() == AF_INET6;
    const void* binary = isV6 ? static_cast<const void*>(&address.v6().sin6_addr) : &address.v4().sin_addr;
    return ::inet_ntop(address.family(), binary, text.data(), text.size());
}

int portNumber(Address address) {
    return ntohs(address.family() == AF_INET6 ? address.v6().sin6_port : address.v4().sin_port);
}

Address nameOf(int fd) {
    Address result;
    if (::getsockname(fd, result.generic(), &result.length) != 0)
        fail("getsockname()");
    return result;
}

Address peerOf(int fd) {
    Address result;
    if (::getpeername(fd, result.generic(), &result.length) != 0)
        fail("getpeername()");
    return result;
}

UniqueFd guarded(int fd, const char* call) {
    if (fd < 0)
        fail(call);
    UniqueFd result(fd);
    const timeval limit = {guardSeconds, 0};
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0 ||
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0) {
        fail("setsockopt(SO_RCVTIMEO, SO_SNDTIMEO)");
    }
    return result;
}

UniqueFd newSocket(int family, int type) {
    return guarded(::socket(family, type | SOCK_CLOEXEC, 0), "socket()");
}

/** The kernel does not restart a socket with a time limit when the process has been stopped or signalled. */
auto uninterrupted(auto call, auto... arguments) {
    for (;;) {
        const auto result = call(arguments...);
        if (result != -1 || errno != EINTR)
            return result;
    }
}

void bindTo(int fd, const Address& address, const std::string& what) {
    if (::bind(fd, address.generic(), address.length) != 0)
        fail("bind(" + what + ")");
}

void listenAt(int fd, int backlog) {
    if (::listen(fd, backlog) != 0)
        fail("listen()");
}

void connectTo(int fd, const Address& address, const std::string& what) {
    if (uninterrupted(::connect, fd, address.generic(), address.length) != 0)
        fail("connect(" + what + ")");
}

int unusedPort(int type) {
    const UniqueFd fd = newSocket(AF_INET, type);
    bindTo(fd.get(), inetAddress("0.0.0.0", 0), "0.0.0.0");
    return localPort(fd.get());
}

std::size_t receiveSome(int fd, char* buffer, std::size_t size) {
    const ssize_t count = uninterrupted(::recv, fd, buffer, size, 0);
    if (count < 0)
        fail("recv()");
    return static_cast<std::size_t>(count);
}

} // namespace

int UniqueFd::release() {
    return std::exchange(m_fd, -1);
}

void UniqueFd::reset(int fd) {
    const int old = std::exchange(m_fd, fd);
    if (old >= 0 && old != fd)
        ::close(old);
}

std::string bytes(std::string_view hexText) {
    std::string digits;
    for (const char letter : hexText) {
        if (std::isxdigit(static_cast<unsigned char>(letter)) != 0) {
            digits += letter;
        } else if (std::isspace(static_cast<unsigned char>(letter)) == 0) {
            throw std::invalid_argument("no hexadecimal text: " + std::string(hexText));
        }
    }
    if (digits.size() % 2 != 0)
        throw std::invalid_argument("half a byte: " + std::string(hexText));
    std::string result;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        result += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return result;
}

std::string manyBytes(std::size_t count, unsigned int seed) {
    std::string result(count, '\0');
    for (char& byte : result) {
        seed = seed * 1'664'525 + 1'013'904'223;
        byte = static_cast<char>(seed >> 24);
    }
    return result;
}

std::string hex(std::string_view data) {
    static const char digits[] = "0123456789abcdef";
    std::string result;
    for (const char letter : data) {
        const unsigned value = static_cast<unsigned char>(letter);
        result += result.empty() ? "" : " ";
        result += digits[value / 16];
        result += digits[value % 16];
    }
    return result;
}

std::string readTextFile(const std::string& path) {
    std::ifstream file(path);
    if (!file)
        fail(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

UniqueFd unixListen(const std::string& path, int backlog) {
    ::unlink(path.c_str());
    UniqueFd fd = newSocket(AF_UNIX, SOCK_STREAM);
    bindTo(fd.get(), unixAddress(path), path);
    listenAt(fd.get(), backlog);
    return fd;
}

UniqueFd unixConnect(const std::string& path) {
    UniqueFd fd = newSocket(AF_UNIX, SOCK_STREAM);
    connectTo(fd.get(), unixAddress(path), path);
    return fd;
}

UniqueFd tcpListen(const std::string& address, int& port, int backlog) {
    const Address local = inetAddress(address, port);
    UniqueFd fd = newSocket(local.family(), SOCK_STREAM);
    const int on = 1;
    // A test may want a port back which an earlier connection has left in TIME_WAIT.
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0)
        fail("setsockopt(SO_REUSEADDR)");
    bindTo(fd.get(), local, address);
    listenAt(fd.get(), backlog);
    port = localPort(fd.get());
    return fd;
}

UniqueFd tcpConnect(const std::string& address, int port, const std::string& sourceAddress) {
    const Address remote = inetAddress(address, port);
    UniqueFd fd = newSocket(remote.family(), SOCK_STREAM);
    if (!sourceAddress.empty())
        bindTo(fd.get(), inetAddress(sourceAddress, 0), sourceAddress);
    connectTo(fd.get(), remote, address + ":" + std::to_string(port));
    return fd;
}

UniqueFd udpSocket(const std::string& address, int& port) {
    const Address local = inetAddress(address, port);
    UniqueFd fd = newSocket(local.family(), SOCK_DGRAM);
    bindTo(fd.get(), local, address);
    port = localPort(fd.get());
    return fd;
}

void udpSendTo(int fd, const std::string& address, int port, std::string_view data) {
    const Address remote = inetAddress(address, port);
    const ssize_t sent =
        ::sendto(fd, data.data(), data.size(), MSG_NOSIGNAL, remote.generic(), remote.length);
    if (sent != static_cast<ssize_t>(data.size()))
        fail("sendto(" + address + ")");
}

UniqueFd acceptClient(int fd) {
    return guarded(uninterrupted(::accept4, fd, nullptr, nullptr, SOCK_CLOEXEC), "accept4()");
}

void sendAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t sent = uninterrupted(::send, fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (sent < 0)
            fail("send()");
        data.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string receiveExactly(int fd, std::size_t count) {
    std::string result(count, '\0');
    std::size_t done = 0;
    while (done < count) {
        const std::size_t more = receiveSome(fd, result.data() + done, count - done);
        if (more == 0)
            fail("end after " + std::to_string(done) + " of " + std::to_string(count) + " bytes", ENODATA);
        done += more;
    }
    return result;
}

std::string receiveToEnd(int fd) {
    std::string result;
    std::array<char, 65536> buffer;
    for (std::size_t count = 1; count > 0;) {
        count = receiveSome(fd, buffer.data(), buffer.size());
        result.append(buffer.data(), count);
    }
    return result;
}

std::string receiveDatagram(int fd) {
    return receiveDatagramFrom(fd).data;
}

Datagram receiveDatagramFrom(int fd) {
    std::string buffer(65536, '\0');
    Address source;
    const ssize_t count =
        uninterrupted(::recvfrom, fd, buffer.data(), buffer.size(), 0, source.generic(), &source.length);
    if (count < 0)
        fail("recvfrom()");
    buffer.resize(static_cast<std::size_t>(count));
    return {buffer, addressText(source), portNumber(source)};
}

void resetOnClose(int fd) {
    const linger option = {1, 0};
    if (::setsockopt(fd, SOL_SOCKET, SO_LINGER, &option, sizeof(option)) != 0)
        fail("setsockopt(SO_LINGER)");
}

int localPort(int fd) {
    return portNumber(nameOf(fd));
}

std::string localAddress(int fd) {
    return addressText(nameOf(fd));
}

std::string peerAddress(int fd) {
    return addressText(peerOf(fd));
}

int unusedTcpPort() {
    return unusedPort(SOCK_STREAM);
}

int unusedUdpPort() {
    return unusedPort(SOCK_DGRAM);
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

bool isCloseOnExec(int fd) {
    return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

std::map<int, std::string> descriptorTable() {
    std::map<int, std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code isGone; // another thread may have closed it by now
        const std::string target = std::filesystem::read_symlink(entry, isGone);
        // The directory which is being read is ours, not the test's.
        if (!isGone && target != "/proc/" + std::to_string(::getpid()) + "/fd")
            result[std::stoi(entry.path().filename())] = target;
    }
    return result;
}

int openDescriptors() {
    return static_cast<int>(descriptorTable().size());
}

} // namespace VornTest
