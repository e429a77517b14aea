// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Sockets.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <tuple>

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <linux/unix_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace VornTool {

namespace {

// The kernel's states of a socket; <netinet/tcp.h>, which has their names, does not go with <linux/tcp.h>.
constexpr int cEstablished = 1;
constexpr int cSynSent = 2;
constexpr int cTimeWait = 6;
constexpr int cCloseWait = 8;
constexpr int cListen = 10;

Socket::State stateOf(int state) {
    switch (state) {
    case cListen:
        return Socket::State::Listening;
    case cSynSent:
        return Socket::State::Connecting;
    case cEstablished:
        return Socket::State::Connected;
    case cCloseWait:
        return Socket::State::PeerEnded;
    case cTimeWait:
        return Socket::State::TimeWait;
    default:
        return Socket::State::Other;
    }
}

template <typename Data>
Data payloadOf(const nlattr* attribute) {
    // Older kernels tell less, newer ones more.
    Data data{};
    std::memcpy(&data, mnl_attr_get_payload(attribute),
                std::min<std::size_t>(sizeof data, mnl_attr_get_payload_len(attribute)));
    return data;
}

int readPipeAttribute(const nlattr* attribute, void* data) {
    auto& socket = *static_cast<Socket*>(data);
    const auto* payload = static_cast<const char*>(mnl_attr_get_payload(attribute));
    const std::size_t size = mnl_attr_get_payload_len(attribute);
    switch (mnl_attr_get_type(attribute)) {
    case UNIX_DIAG_NAME:
        // The payload ends with a zero byte on some kernels and without on others.
        socket.path.assign(payload, ::strnlen(payload, size));
        break;
    case UNIX_DIAG_VFS: {
        const auto file = payloadOf<unix_diag_vfs>(attribute);
        socket.file = Socket::File{file.udiag_vfs_ino, file.udiag_vfs_dev};
        break;
    }
    case UNIX_DIAG_PEER:
        socket.peer = payloadOf<std::uint32_t>(attribute);
        break;
    case UNIX_DIAG_ICONS:
        if (size == 0) // nobody waits, and memcpy() may not be given the null pointer of an empty list
            break;
        socket.clients.resize(size / sizeof(std::uint32_t));
        std::memcpy(socket.clients.data(), payload, socket.clients.size() * sizeof(std::uint32_t));
        break;
    case UNIX_DIAG_RQLEN: {
        const auto lengths = payloadOf<unix_diag_rqlen>(attribute);
        if (socket.state == Socket::State::Listening)
            socket.queue = Socket::Queue{lengths.udiag_rqueue, lengths.udiag_wqueue};
        else
            std::tie(socket.unread, socket.unsent) = std::tie(lengths.udiag_rqueue, lengths.udiag_wqueue);
        break;
    }
    case UNIX_DIAG_SHUTDOWN:
        // The peer's end of writing is this end of reading.
        if (socket.state == Socket::State::Connected && (payloadOf<std::uint8_t>(attribute) & 1U) != 0)
            socket.state = Socket::State::PeerEnded;
        break;
    default:
        break;
    }
    return MNL_CB_OK;
}

int readPipe(const nlmsghdr* header, void* data) {
    const auto* message = static_cast<const unix_diag_msg*>(mnl_nlmsg_get_payload(header));
    Socket socket;
    socket.number = message->udiag_ino;
    socket.state = stateOf(message->udiag_state);
    mnl_attr_parse(header, sizeof *message, readPipeAttribute, &socket);
    if (message->udiag_type == SOCK_STREAM)
        static_cast<Sockets*>(data)->list.push_back(std::move(socket));
    return MNL_CB_OK;
}

Socket::Place placeOf(int family, const void* address, std::uint16_t port) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    const auto* words = static_cast<const std::uint32_t*>(address);
    const bool isMapped = family == AF_INET6 && words[0] == 0 && words[1] == 0 && words[2] == htonl(0xFFFF);
    if (isMapped)
        ::inet_ntop(AF_INET, words + 3, text.data(), text.size());
    else
        ::inet_ntop(family, address, text.data(), text.size());
    return {text.data(), ntohs(port)};
}

int readPortAttribute(const nlattr* attribute, void* data) {
    auto& socket = *static_cast<Socket*>(data);
    const int type = mnl_attr_get_type(attribute);
    if (type == INET_DIAG_SKMEMINFO && socket.kind == Socket::Kind::Udp) {
        socket.lost = payloadOf<std::array<std::uint32_t, SK_MEMINFO_VARS>>(attribute)[SK_MEMINFO_DROPS];
    } else if (type == INET_DIAG_INFO && socket.kind == Socket::Kind::Tcp &&
               socket.state != Socket::State::Listening) {
        socket.silence = std::chrono::milliseconds(payloadOf<tcp_info>(attribute).tcpi_last_data_recv);
    }
    return MNL_CB_OK;
}

/** What the function for one socket needs. */
struct PortDump {
    Socket::Kind kind;
    Sockets& sockets;
};

int readPort(const nlmsghdr* header, void* data) {
    const auto* message = static_cast<const inet_diag_msg*>(mnl_nlmsg_get_payload(header));
    const auto& dump = *static_cast<const PortDump*>(data);
    Socket socket;
    socket.kind = dump.kind;
    socket.number = message->idiag_inode;
    socket.state = stateOf(message->idiag_state);
    socket.local = placeOf(message->idiag_family, message->id.idiag_src, message->id.idiag_sport);
    socket.remote = placeOf(message->idiag_family, message->id.idiag_dst, message->id.idiag_dport);
    if (socket.state == Socket::State::Listening)
        socket.queue = Socket::Queue{message->idiag_rqueue, message->idiag_wqueue};
    else
        std::tie(socket.unread, socket.unsent) = std::tie(message->idiag_rqueue, message->idiag_wqueue);
    mnl_attr_parse(header, sizeof *message, readPortAttribute, &socket);
    dump.sockets.list.push_back(std::move(socket));
    return MNL_CB_OK;
}

/** Asks for all sockets of a kind. @return whether the kernel has answered to the end */
template <typename Request>
bool dump(const Request& request, mnl_cb_t read, void* data) {
    const std::unique_ptr<mnl_socket, decltype(&mnl_socket_close)> diagnosis(
        mnl_socket_open2(NETLINK_SOCK_DIAG, SOCK_CLOEXEC), &mnl_socket_close);
    if (diagnosis == nullptr)
        return false;
    std::vector<char> buffer(std::size_t{1} << 17);
    nlmsghdr* header = mnl_nlmsg_put_header(buffer.data());
    header->nlmsg_type = SOCK_DIAG_BY_FAMILY;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    std::memcpy(mnl_nlmsg_put_extra_header(header, sizeof request), &request, sizeof request);
    if (mnl_socket_sendto(diagnosis.get(), header, header->nlmsg_len) < 0)
        return false;
    for (;;) {
        const ssize_t count = mnl_socket_recvfrom(diagnosis.get(), buffer.data(), buffer.size());
        if (count < 0)
            return false;
        const int result = mnl_cb_run(buffer.data(), static_cast<std::size_t>(count), 0, 0, read, data);
        if (result <= MNL_CB_STOP)
            return result == MNL_CB_STOP;
    }
}

bool dumpPipes(Sockets& sockets) {
    unix_diag_req request{};
    request.sdiag_family = AF_UNIX;
    request.udiag_states = ~0U;
    request.udiag_show =
        UDIAG_SHOW_NAME | UDIAG_SHOW_VFS | UDIAG_SHOW_PEER | UDIAG_SHOW_ICONS | UDIAG_SHOW_RQLEN;
    return dump(request, readPipe, &sockets);
}

void dumpPorts(int family, Socket::Kind kind, Sockets& sockets) {
    inet_diag_req_v2 request{};
    request.sdiag_family = static_cast<std::uint8_t>(family);
    request.sdiag_protocol = kind == Socket::Kind::Tcp ? IPPROTO_TCP : IPPROTO_UDP;
    request.idiag_states = ~0U;
    request.idiag_ext = (1U << (INET_DIAG_INFO - 1)) | (1U << (INET_DIAG_SKMEMINFO - 1));
    PortDump data{kind, sockets};
    dump(request, readPort, &data);
}

} // namespace

Sockets listSockets(bool withPorts) {
    Sockets sockets;
    sockets.pipesKnown = dumpPipes(sockets);
    if (!withPorts)
        return sockets;
    // A socket of IPv6 takes the port for IPv4 as well, unless it was told not to; there may be no IPv6.
    for (const int family : {AF_INET, AF_INET6}) {
        dumpPorts(family, Socket::Kind::Tcp, sockets);
        dumpPorts(family, Socket::Kind::Udp, sockets);
    }
    return sockets;
}

bool canBind(int type, const Socket::Place& place) {
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(place.port));
    ::inet_pton(AF_INET, place.address.c_str(), &address.sin_addr);
    const bool isBound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return isBound;
}

} // namespace VornTool
