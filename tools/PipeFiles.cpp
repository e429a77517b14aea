// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PipeFiles.h"

#include "Address.h"
#include "ExitStatus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <set>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <linux/magic.h>

namespace VornTool {

namespace {

/** The kernel's own form of a device number, which differs from that of struct stat. */
std::uint32_t kernelDevice(dev_t device) {
    return (major(device) << 20U) | minor(device);
}

bool isSameFile(const Socket::File& file, const struct stat& information) {
    return file.inode == static_cast<std::uint32_t>(information.st_ino) &&
           file.device == kernelDevice(information.st_dev);
}

/**
 * Asks whether any socket is bound to the file, without a connection being made: the kernel looks for the
 * socket first and for its type afterwards, and no server of this library has datagram sockets.
 * @return EPROTOTYPE or 0 when there is one, ECONNREFUSED when there is none, otherwise why that is unknown
 */
int probe(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return ENAMETOOLONG;
    std::memcpy(address.sun_path, path.data(), path.size());
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    const int result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = result == 0 ? 0 : errno;
    ::close(fd);
    return error;
}

/** Compares the directory with the sockets, once. */
class Inspection {
public:
    Inspection();

    std::vector<PipeFile> run();

private:
    void readDirectory();
    PipeFile inspect(const std::string& name, const struct stat& information);
    void judge(PipeFile& file, const std::string& name, const struct stat& information);
    void judgeWithoutSocket(PipeFile& file, const std::string& name) const;
    void addCutOff(std::vector<PipeFile>& files) const;
    std::string nameInDirectory(const std::string& path) const;

    const std::string m_directory;
    Sockets m_sockets;
    bool m_exact = false; // whether sockets can be told by their files
    std::multimap<std::string, const Socket*> m_byName;
    std::multimap<std::uint32_t, Process> m_holders;
    std::set<std::uint32_t> m_found; // sockets that have their path
    std::vector<std::string> m_names;
};

Inspection::Inspection() : m_directory(pipeDirectory()) {
    // Directory first: a pipe made meanwhile is then just not listed, instead of being taken for stolen.
    readDirectory();
    m_sockets = listSockets(false);

    struct statfs fileSystem {};

    // A socket on an overlay may be told with the number of a file below it.
    m_exact = m_sockets.pipesKnown && ::statfs(m_directory.c_str(), &fileSystem) == 0 &&
              fileSystem.f_type != OVERLAYFS_SUPER_MAGIC;
    for (const Socket& socket : m_sockets.list) {
        // Accepted connections bear their listener's name, and on newer kernels its file.
        const bool isServer =
            socket.state == Socket::State::Listening || socket.state == Socket::State::Other;
        const std::string name = nameInDirectory(socket.path);
        if (isServer && !name.empty())
            m_byName.emplace(name, &socket);
    }
    if (!m_byName.empty())
        m_holders = listHolders();
}

std::string Inspection::nameInDirectory(const std::string& path) const {
    if (path.rfind(m_directory, 0) != 0)
        return {};
    const std::size_t start = path.find_first_not_of('/', m_directory.size());
    const std::string name = start == std::string::npos ? "" : path.substr(start);
    return name.find('/') == std::string::npos ? name : "";
}

void Inspection::readDirectory() {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(m_directory, error))
        m_names.push_back(entry.path().filename());
    if (error)
        throw ToolError(exitFailed, "cannot read " + m_directory + ": " + error.message());
    std::sort(m_names.begin(), m_names.end());
}

void Inspection::judgeWithoutSocket(PipeFile& file, const std::string& name) const {
    switch (probe(m_directory + name)) {
    case ECONNREFUSED:
        file.state = PipeState::Dead;
        break;
    case EPROTOTYPE:
    case 0:
        file.state = PipeState::Hidden;
        break;
    default:
        file.state = PipeState::Unknown;
    }
}

void Inspection::judge(PipeFile& file, const std::string& name, const struct stat& information) {
    const auto [first, last] = m_byName.equal_range(name);
    std::vector<const Socket*> candidates;
    for (auto entry = first; entry != last; ++entry) {
        if (!m_exact || (entry->second->file && isSameFile(*entry->second->file, information)))
            candidates.push_back(entry->second);
    }
    judgeWithoutSocket(file, name);
    // Without the kernel's word the name alone tells little: a dead file may bear a stolen socket's name.
    if (candidates.empty() || (!m_exact && file.state == PipeState::Dead))
        return;
    const bool contested = candidates.size() > 1;
    for (const Socket* socket : candidates) {
        m_found.insert(socket->number);
        file.state = socket->state == Socket::State::Listening ? PipeState::Listening : PipeState::Bound;
        file.queue = socket->queue;
        const std::vector<Process> holders = holdersOf(m_holders, socket->number);
        file.processes.insert(file.processes.end(), holders.begin(), holders.end());
    }
    if (contested) {
        file.state = PipeState::Contested;
        file.queue.reset();
    }
}

PipeFile Inspection::inspect(const std::string& name, const struct stat& information) {
    PipeFile file;
    file.name = name;
    file.ownership = PipeFile::Ownership{information.st_mode & 07777U, nameOfUser(information.st_uid),
                                         nameOfGroup(information.st_gid)};
    if (S_ISSOCK(information.st_mode))
        judge(file, name, information);
    else
        file.state = PipeState::NoSocket;
    return file;
}

void Inspection::addCutOff(std::vector<PipeFile>& files) const {
    for (const auto& [name, socket] : m_byName) {
        if (socket->state != Socket::State::Listening || m_found.count(socket->number) != 0)
            continue;
        const bool exists = ::access((m_directory + name).c_str(), F_OK) == 0;
        PipeFile file;
        file.name = name;
        file.state = exists ? PipeState::Stolen : PipeState::Unlinked;
        file.queue = socket->queue;
        file.processes = holdersOf(m_holders, socket->number);
        files.push_back(file);
    }
}

std::vector<PipeFile> Inspection::run() {
    std::vector<PipeFile> files;
    for (const std::string& name : m_names) {
        struct stat information {};

        if (::lstat((m_directory + name).c_str(), &information) == 0)
            files.push_back(inspect(name, information));
    }
    addCutOff(files);
    std::stable_sort(files.begin(), files.end(),
                     [](const PipeFile& a, const PipeFile& b) { return a.name < b.name; });
    return files;
}

bool isPassing(const PipeFile& file) {
    return file.state == PipeState::Dead || file.state == PipeState::Stolen ||
           file.state == PipeState::Unlinked || file.state == PipeState::Bound;
}

} // namespace

std::vector<PipeFile> listPipeFiles() {
    constexpr int cLooks = 4;
    constexpr std::chrono::milliseconds cPause(15);
    std::vector<PipeFile> files = Inspection().run();
    // A sink closes its server and binds its path anew after each notification: what is seen in between
    // looks like death or theft, and is gone at a second look.
    for (int look = 1; look < cLooks && std::any_of(files.begin(), files.end(), isPassing); ++look) {
        std::this_thread::sleep_for(cPause);
        files = Inspection().run();
    }
    return files;
}

std::string pipePath(const std::string& name) {
    return pipeDirectory() + name;
}

int removeIfDead(const std::string& path) {
    const int error = probe(path);
    if (error != ECONNREFUSED)
        return error == EPROTOTYPE || error == 0 ? EADDRINUSE : error;
    // Between a look and the removal another server may bind the path. So the file is moved aside, where
    // nobody can bind it, and looked at again; it goes back if the look had been at another file.
    const std::string aside = pipeDirectory() + ".v" + std::to_string(::getpid());
    if (::rename(path.c_str(), aside.c_str()) != 0)
        return errno;
    if (probe(aside) == ECONNREFUSED)
        return ::unlink(aside.c_str()) == 0 ? 0 : errno;
    if (::renameat2(AT_FDCWD, aside.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0)
        return errno;
    return EADDRINUSE;
}

std::string nameOf(PipeState state) {
    constexpr std::array cNames = {"listening", "bound", "hidden",    "contested", "stolen",
                                   "unlinked",  "dead",  "no-socket", "unknown"};
    return cNames.at(static_cast<std::size_t>(state));
}

} // namespace VornTool
