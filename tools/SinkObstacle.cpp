// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkObstacle.h"

#include "Address.h"
#include "Output.h"
#include "Processes.h"
#include "Sockets.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace VornTool {

const char* const sinkTypeVariable = "QUORAX_CALLB_CONN_TYPE";

namespace {

/** Looks a name up as the sink does: its address, and the official name for the second look-up. */
bool lookUp(const std::string& name, std::string& officialName, std::string& address) {
    std::array<char, 8192> buffer;
    hostent entry{};
    hostent* result = nullptr;
    int error = 0;
    if (::gethostbyname_r(name.c_str(), &entry, buffer.data(), buffer.size(), &result, &error) != 0 ||
        result == nullptr || result->h_addr_list[0] == nullptr)
        return false;
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, result->h_addr_list[0], text.data(), text.size());
    officialName = result->h_name;
    address = text.data();
    return true;
}

/** @return the commands, one after the other, as root or as who may become it. */
std::string asRoot(std::vector<std::string> commands) {
    for (std::string& command : commands)
        command.insert(0, ::geteuid() == 0 ? "" : "sudo ");
    return joined(commands, "; ");
}

/** @return the command that lets this user into a group; none for root, who needs none. */
std::vector<std::string> joiningGroup(const std::string& group) {
    if (::geteuid() == 0)
        return {};
    return {"usermod -aG " + group + " " + nameOfUser(::geteuid())};
}

/** As in the manual; a test compares them. */
std::string createDirectoryRemedy() {
    const std::string directory = pipeDirectory();
    std::vector<std::string> commands = {"groupadd --system --force vorn",
                                         "install -d -o root -g vorn -m 1770 " +
                                             directory.substr(0, directory.size() - 1)};
    for (const std::string& command : joiningGroup("vorn"))
        commands.push_back(command);
    return asRoot(commands);
}

} // namespace

std::string effectiveSinkType() {
    const char* value = std::getenv(sinkTypeVariable);
    const std::string type = value != nullptr ? value : "";
    return type == "socket" || type == "udp" ? type : "pipe";
}

std::string sinkHostAddress() {
    std::string officialName;
    std::string address;
    if (!lookUp("localhost", officialName, address) || !lookUp(officialName, officialName, address))
        return {};
    return address;
}

std::optional<Obstacle> pipeDirectoryObstacle() {
    const std::string path = pipeDirectory();

    struct stat information {};

    if (::stat(path.c_str(), &information) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            return Obstacle{"the pipe directory " + path + " is missing", createDirectoryRemedy()};
        return Obstacle{"the pipe directory " + path + " cannot be looked at: " + std::strerror(errno),
                        "namei -l " + path};
    }
    if (::faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        const bool readOnly = errno == EROFS;
        return Obstacle{"the pipe directory " + path +
                            " is not writable for this user: " + std::strerror(errno),
                        readOnly ? asRoot({"mount -o remount,rw $(findmnt -no TARGET -T " + path + ")"})
                                 : asRoot(joiningGroup(nameOfGroup(information.st_gid)))};
    }

    struct statvfs space {};

    if (::statvfs(path.c_str(), &space) == 0 && space.f_files != 0 && space.f_favail == 0)
        return Obstacle{"the file system of the pipe directory has no file left to give",
                        "vornnet pipes --clean"};
    return std::nullopt;
}

std::optional<Obstacle> hostAddressObstacle() {
    const std::string address = sinkHostAddress();
    if (address.empty())
        return Obstacle{"\"localhost\" does not resolve, so a TCP or UDP sink has no address to publish",
                        asRoot({"sh -c 'echo 127.0.0.1 localhost >>/etc/hosts'"})};
    if (!canBind(SOCK_DGRAM, {address, 0}))
        return Obstacle{"\"localhost\" resolves to " + address +
                            ", which is no address of this host: a TCP or UDP sink cannot be bound to it",
                        asRoot({"sed -i 's/^" + address + "\\(.*localhost\\)/127.0.0.1\\1/' /etc/hosts"})};
    return std::nullopt;
}

std::optional<Obstacle> sinkObstacle(const std::string& type) {
    return type == "pipe" ? pipeDirectoryObstacle() : hostAddressObstacle();
}

} // namespace VornTool
