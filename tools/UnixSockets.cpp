// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "UnixSockets.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace VornTool {

namespace {

/** A socket of the kernel's diagnosis. */
class DiagnosisSocket {
public:
    DiagnosisSocket() : m_fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}

    ~DiagnosisSocket() {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    DiagnosisSocket(const DiagnosisSocket&) = delete;
    DiagnosisSocket& operator=(const DiagnosisSocket&) = delete;

    bool request() const;

    long receive(char* buffer, std::size_t size) const { return ::recv(m_fd, buffer, size, 0); }

private:
    int m_fd;
};

bool DiagnosisSocket::request() const {
    struct {
        nlmsghdr header;
        unix_diag_req request;
    } message{};

    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.request.sdiag_family = AF_UNIX;
    message.request.udiag_states = ~0U;
    message.request.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_VFS | UDIAG_SHOW_RQLEN;
    return m_fd >= 0 && ::send(m_fd, &message, sizeof message, 0) == sizeof message;
}

template <typename Data>
Data attributeData(const rtattr* attribute) {
    Data data{};
    std::memcpy(&data, RTA_DATA(attribute), std::min<std::size_t>(sizeof data, RTA_PAYLOAD(attribute)));
    return data;
}

void readAttribute(const rtattr* attribute, UnixSocket& socket) {
    if (attribute->rta_type == UNIX_DIAG_NAME) {
        const auto* name = static_cast<const char*>(RTA_DATA(attribute));
        // The payload ends with a zero byte on some kernels and without on others.
        socket.path.assign(name, ::strnlen(name, RTA_PAYLOAD(attribute)));
    } else if (attribute->rta_type == UNIX_DIAG_VFS) {
        const auto file = attributeData<unix_diag_vfs>(attribute);
        socket.file = UnixSocket::File{file.udiag_vfs_ino, file.udiag_vfs_dev};
    } else if (attribute->rta_type == UNIX_DIAG_RQLEN && socket.listening) {
        const auto lengths = attributeData<unix_diag_rqlen>(attribute);
        socket.queue = UnixSocket::Queue{lengths.udiag_rqueue, lengths.udiag_wqueue};
    }
}

void readMessage(const nlmsghdr* header, std::vector<UnixSocket>& sockets) {
    auto* message = static_cast<unix_diag_msg*>(NLMSG_DATA(const_cast<nlmsghdr*>(header)));
    UnixSocket socket;
    socket.number = message->udiag_ino;
    socket.listening = message->udiag_state == TCP_LISTEN;
    auto length = static_cast<int>(header->nlmsg_len - NLMSG_LENGTH(sizeof *message));
    for (auto* attribute = reinterpret_cast<rtattr*>(message + 1); RTA_OK(attribute, length);
         attribute = RTA_NEXT(attribute, length))
        readAttribute(attribute, socket);
    // Accepted connections bear their listener's name, and on newer kernels its file.
    const bool accepted = !socket.listening && message->udiag_state == TCP_ESTABLISHED;
    if (!socket.path.empty() && !accepted)
        sockets.push_back(socket);
}

/** @return whether the kernel has answered to the end. */
bool diagnose(std::vector<UnixSocket>& sockets) {
    const DiagnosisSocket diagnosis;
    if (!diagnosis.request())
        return false;
    std::vector<char> buffer(std::size_t{1} << 17);
    for (;;) {
        const long count = diagnosis.receive(buffer.data(), buffer.size());
        if (count <= 0)
            return false;
        auto length = static_cast<unsigned int>(count);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(header, length);
             header = NLMSG_NEXT(header, length)) {
            if (header->nlmsg_type == NLMSG_DONE)
                return true;
            if (header->nlmsg_type == NLMSG_ERROR)
                return false;
            readMessage(header, sockets);
        }
    }
}

/** Lines such as "0000000000000000: 00000002 00000000 00010000 0001 01 34567 /path". */
std::vector<UnixSocket> readProcNetUnix() {
    constexpr unsigned long cAcceptsConnections = 0x10000;
    constexpr unsigned long cConnected = 3;
    std::vector<UnixSocket> sockets;
    std::ifstream file("/proc/net/unix");
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string address;
        std::string references;
        std::string protocol;
        unsigned long flags = 0;
        unsigned long type = 0;
        unsigned long state = 0;
        UnixSocket socket;
        fields >> address >> references >> protocol >> std::hex >> flags >> type >> state >> std::dec >>
            socket.number >> std::ws;
        std::getline(fields, socket.path);
        socket.listening = (flags & cAcceptsConnections) != 0;
        if (!socket.path.empty() && (socket.listening || state != cConnected))
            sockets.push_back(socket);
    }
    return sockets;
}

std::string nameOfProcess(const std::filesystem::path& directory) {
    std::ifstream file(directory / "comm");
    std::string name;
    std::getline(file, name);
    return name;
}

/** @return the number in "socket:[123]", 0 for other links. */
std::uint32_t socketNumber(const std::string& link) {
    const std::string prefix = "socket:[";
    return link.rfind(prefix, 0) == 0
               ? static_cast<std::uint32_t>(std::strtoul(link.c_str() + prefix.size(), nullptr, 10))
               : 0;
}

std::set<std::uint32_t> socketsOfProcess(const std::filesystem::path& directory) {
    std::set<std::uint32_t> numbers;
    std::error_code error;
    // Processes and descriptors come and go meanwhile, and those of other users cannot be seen.
    for (std::filesystem::directory_iterator entry(directory / "fd", error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code linkError;
        const std::string link = std::filesystem::read_symlink(entry->path(), linkError).string();
        if (!linkError)
            numbers.insert(socketNumber(link));
    }
    return numbers;
}

} // namespace

UnixSockets listUnixSockets() {
    UnixSockets result;
    result.exact = diagnose(result.sockets);
    if (!result.exact)
        result.sockets = readProcNetUnix();
    return result;
}

std::multimap<std::uint32_t, Process> findHolders(const std::set<std::uint32_t>& numbers) {
    std::multimap<std::uint32_t, Process> holders;
    if (numbers.empty())
        return holders;
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (std::isdigit(static_cast<unsigned char>(name[0])) == 0)
            continue;
        const std::set<std::uint32_t> held = socketsOfProcess(entry->path());
        for (const std::uint32_t number : numbers) {
            if (held.count(number) != 0)
                holders.emplace(number, Process{static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10)),
                                                nameOfProcess(entry->path())});
        }
    }
    return holders;
}

} // namespace VornTool
