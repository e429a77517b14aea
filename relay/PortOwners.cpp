// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PortOwners.h"

#include "LeaseTable.h"

#include <OwnedDescriptor.h>
#include <SystemCalls.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>

namespace VornRelay {

namespace {

namespace System = VornSupport::System;

constexpr std::uint32_t cListening = 1U << 10; // TCP_LISTEN; its header does not go with others

/** Takes what listens at the address out of a part of the kernel's answer. @return whether more follows */
bool takePorts(const char* data, std::size_t nSize, in_addr address, std::vector<ListeningPort>& ports) {
    const auto* header = reinterpret_cast<const nlmsghdr*>(data);
    for (; NLMSG_OK(header, nSize); header = NLMSG_NEXT(header, nSize)) {
        if (header->nlmsg_type == NLMSG_DONE || header->nlmsg_type == NLMSG_ERROR)
            return false;
        inet_diag_msg message{};
        std::memcpy(&message, NLMSG_DATA(header), sizeof message);
        if (message.id.idiag_src[0] == address.s_addr || message.id.idiag_src[0] == INADDR_ANY)
            ports.push_back({ntohs(message.id.idiag_sport), message.idiag_inode, message.idiag_uid});
    }
    return true;
}

void throwIfShort(const std::error_code& failure) {
    if (failure == std::errc::too_many_files_open || failure == std::errc::too_many_files_open_in_system ||
        failure == std::errc::not_enough_memory)
        throw std::system_error(failure, "who listens cannot be found out");
}

/** @return whether a process has the socket among its descriptors, as far as that may be seen. */
bool hasSocket(pid_t process, std::uint32_t nSocket) {
    const std::string sWanted = "socket:[" + std::to_string(nSocket) + "]";
    std::error_code failure;
    for (std::filesystem::directory_iterator entry("/proc/" + std::to_string(process) + "/fd", failure), end;
         !failure && entry != end; entry.increment(failure)) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry->path(), gone) == sWanted)
            return true;
    }
    throwIfShort(failure);
    return false;
}

} // namespace

std::vector<ListeningPort> listeningPorts(in_addr address) {
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } question{};

    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    question.request.sdiag_family = AF_INET;
    question.request.sdiag_protocol = IPPROTO_TCP;
    question.request.idiag_states = cListening;
    std::vector<ListeningPort> ports;
    const VornNet::OwnedDescriptor socket(
        System::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!socket.isOpen())
        throwIfShort({errno, std::generic_category()});
    if (System::send(socket.number(), &question, sizeof question, 0) == -1)
        return ports;
    alignas(nlmsghdr) std::array<char, 32768> part;
    ssize_t count = 0;
    do {
        count = System::recv(socket.number(), part.data(), part.size(), 0);
    } while (count > 0 && takePorts(part.data(), static_cast<std::size_t>(count), address, ports));
    return ports;
}

void PortOwners::look(in_addr address) {
    const std::vector<ListeningPort> ports = listeningPorts(address);
    for (const ListeningPort& port : ports) {
        const bool bIsKnown = std::any_of(m_owners.begin(), m_owners.end(), [&port](const auto& entry) {
            return (entry.first == port.nPort || entry.second.nPort == port.nPort) && !hasEnded(entry.second);
        });
        if (bIsKnown)
            continue;
        const Owner owner = ownerOf(port);
        if (!mayHaveMoved(owner, ports))
            m_owners[port.nPort] = owner;
    }
}

PortOwners::Place PortOwners::find(in_addr address, std::uint16_t nPublished) {
    const std::vector<ListeningPort> ports = listeningPorts(address);
    const auto at = [&ports](std::uint16_t nPort) {
        return std::find_if(ports.begin(), ports.end(),
                            [nPort](const ListeningPort& port) { return port.nPort == nPort; });
    };
    auto found = m_owners.find(nPublished);
    if (found != m_owners.end() && hasEnded(found->second))
        return {0, false, true};
    if (found == m_owners.end()) {
        if (at(nPublished) == ports.end())
            return {};
        found = m_owners.emplace(nPublished, ownerOf(*at(nPublished))).first;
    }
    const Owner& owner = found->second;
    if (const auto last = at(owner.nPort); last != ports.end() && holds(owner, *last))
        return {owner.nPort, false, false};
    if (owner.process == 0)
        return {};
    for (const ListeningPort& port : ports) {
        if (!isTaken(owner, port.nPort) && holds(owner, port)) {
            move(owner, port.nPort);
            return {port.nPort, true, false};
        }
    }
    return {};
}

bool PortOwners::isOwn(in_addr address, std::uint16_t nPublished, std::uint16_t nPort) const {
    const auto found = m_owners.find(nPublished);
    const std::vector<ListeningPort> ports = listeningPorts(address);
    return found != m_owners.end() &&
           std::any_of(ports.begin(), ports.end(),
                       [nPort](const ListeningPort& port) { return port.nPort == nPort; }) &&
           std::all_of(ports.begin(), ports.end(), [&](const ListeningPort& port) {
               return port.nPort != nPort || holds(found->second, port);
           });
}

PortOwners::Owner PortOwners::ownerOf(const ListeningPort& port) {
    Owner owner;
    owner.user = port.user;
    owner.nPort = port.nPort;
    std::error_code failure;
    for (std::filesystem::directory_iterator entry("/proc", failure), end; !failure && entry != end;
         entry.increment(failure)) {
        const std::string sName = entry->path().filename();
        pid_t process = 0;
        std::from_chars(sName.data(), sName.data() + sName.size(), process);
        if (process == 0 || !hasSocket(process, port.nSocket))
            continue;
        owner.process = process;
        owner.nStart = startOfProcess(process);
        return owner;
    }
    throwIfShort(failure);
    return owner;
}

bool PortOwners::holds(const Owner& owner, const ListeningPort& port) {
    return owner.process == 0 ? owner.user == port.user : hasSocket(owner.process, port.nSocket);
}

bool PortOwners::hasEnded(const Owner& owner) {
    return owner.process != 0 && startOfProcess(owner.process) != owner.nStart;
}

/** A port of a process that has another sink, which has left its port, may be that sink's. Somebody else may
 * have taken the old one. */
bool PortOwners::mayHaveMoved(const Owner& owner, const std::vector<ListeningPort>& ports) const {
    return std::any_of(m_owners.begin(), m_owners.end(), [&](const auto& entry) {
        const Owner& other = entry.second;
        return owner.process != 0 && other.process == owner.process &&
               std::none_of(ports.begin(), ports.end(), [&other](const ListeningPort& port) {
                   return port.nPort == other.nPort && holds(other, port);
               });
    });
}

/** Is it where a sink of the same process was last? */
bool PortOwners::isTaken(const Owner& owner, std::uint16_t nPort) const {
    return std::any_of(m_owners.begin(), m_owners.end(), [&owner, nPort](const auto& entry) {
        return entry.second.process == owner.process && entry.second.nPort == nPort;
    });
}

/** A sink that has moved before is known by several ports. */
void PortOwners::move(const Owner& owner, std::uint16_t nPort) {
    const Owner before = owner;
    for (auto& [nPublished, other] : m_owners) {
        if (other.process == before.process && other.nPort == before.nPort)
            other.nPort = nPort;
    }
}

} // namespace VornRelay
