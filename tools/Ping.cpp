// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Address.h"
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "PipeFiles.h"
#include "Sockets.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace VornTool {

namespace {

using Clock = std::chrono::steady_clock;

struct PingOptions : CommonOptions {
    std::string address;
    double timeout = 1;
};

/** A connection on which nothing is sent. */
class Knock {
public:
    explicit Knock(const Address& address);

    ~Knock() {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    Knock(const Knock&) = delete;
    Knock& operator=(const Knock&) = delete;

    /** @return an errno value; ETIMEDOUT when there is no room in the queue until the end */
    int connect(Clock::time_point end);

    /** Waits for a sign of the other side. @return whether the server has taken the connection */
    bool awaitAcceptance(Clock::time_point end);

private:
    int finishConnecting(Clock::time_point end) const;
    bool isAccepted() const;

    const bool m_isPipe;
    sockaddr_storage m_place{};
    socklen_t m_size = 0;
    int m_fd = -1;
};

Socket::Place placeOf(const sockaddr_in& place) {
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &place.sin_addr, text.data(), text.size());
    return {text.data(), ntohs(place.sin_port)};
}

int millisecondsUntil(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

Knock::Knock(const Address& address) : m_isPipe(address.kind == Address::Kind::Pipe) {
    if (m_isPipe) {
        auto& place = reinterpret_cast<sockaddr_un&>(m_place);
        place.sun_family = AF_UNIX;
        pipePath(address.name).copy(place.sun_path, sizeof place.sun_path - 1);
        m_size = sizeof place;
    } else {
        auto& place = reinterpret_cast<sockaddr_in&>(m_place);
        place.sin_family = AF_INET;
        place.sin_port = htons(static_cast<std::uint16_t>(address.port));
        ::inet_pton(AF_INET, addressesOf(address.name).at(0).c_str(), &place.sin_addr);
        m_size = sizeof place;
    }
    m_fd = ::socket(m_place.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_fd < 0)
        throw ToolError(exitFailed, std::string("no socket: ") + std::strerror(errno));
}

int Knock::finishConnecting(Clock::time_point end) const {
    pollfd event = {m_fd, POLLOUT, 0};
    if (::poll(&event, 1, millisecondsUntil(end)) != 1)
        return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

int Knock::connect(Clock::time_point end) {
    constexpr std::chrono::milliseconds cPause(2);
    while (::connect(m_fd, reinterpret_cast<const sockaddr*>(&m_place), m_size) != 0) {
        if (errno == EINPROGRESS)
            return finishConnecting(end);
        // A pipe's full queue is told at once, and TCP's by silence.
        if (errno != EAGAIN)
            return errno;
        if (Clock::now() >= end)
            return ETIMEDOUT;
        std::this_thread::sleep_for(cPause);
    }
    return 0;
}

/** Asks the kernel, which knows of servers on this host: an end that nobody has accepted has no number. */
bool Knock::isAccepted() const {
    struct stat own {};

    sockaddr_in local{};
    socklen_t size = sizeof local;
    ::fstat(m_fd, &own);
    ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &size);
    const Sockets sockets = listSockets(!m_isPipe);
    return std::any_of(sockets.list.begin(), sockets.list.end(), [&](const Socket& socket) {
        if (socket.number == 0)
            return false;
        if (m_isPipe)
            return socket.peer == static_cast<std::uint32_t>(own.st_ino);
        return socket.kind == Socket::Kind::Tcp && socket.remote == placeOf(local) &&
               socket.local == placeOf(reinterpret_cast<const sockaddr_in&>(m_place));
    });
}

bool Knock::awaitAcceptance(Clock::time_point end) {
    constexpr int cPause = 20;
    // A sink reads the end, calls no callback, and goes on with the next. So does whoever else reads; of
    // others the kernel knows, if they are on this host.
    ::shutdown(m_fd, SHUT_WR);
    std::array<char, 4096> buffer;
    do {
        pollfd event = {m_fd, POLLIN, 0};
        if (::poll(&event, 1, std::min(cPause, millisecondsUntil(end))) == 1) {
            // It may speak first, and would see a reset if that were left unread. What fails is a reset: the
            // server is at work, and closes the connection or, together with its queue, all that wait.
            if (::recv(m_fd, buffer.data(), buffer.size(), 0) <= 0)
                return true;
        } else if (isAccepted()) {
            return true;
        }
    } while (Clock::now() < end);
    return false;
}

void print(const PingOptions& options, const std::string& state, std::optional<Clock::duration> elapsed) {
    Json object = {{"address", options.address}, {"state", state}};
    std::array<char, 32> text{};
    if (elapsed) {
        const double milliseconds = std::chrono::duration<double, std::milli>(*elapsed).count();
        object["milliseconds"] = milliseconds;
        std::snprintf(text.data(), text.size(), ", %.2f ms", milliseconds);
    }
    if (options.json)
        Output::json(object);
    else
        Output::line(options.address + ": " + state + text.data());
}

/** Datagrams are not accepted, and each would be a notification; so this only looks. */
int lookAtPort(const PingOptions& options, const Address& address) {
    const std::vector<std::string> hosts = addressesOf(address.name);
    const Sockets sockets = listSockets(true);
    const auto found = std::find_if(sockets.list.begin(), sockets.list.end(), [&](const Socket& socket) {
        return socket.kind == Socket::Kind::Udp && socket.number != 0 && socket.remote.port == 0 &&
               socket.local.port == static_cast<std::uint16_t>(address.port) &&
               (socket.local.address == hosts.at(0) || socket.local.address == "0.0.0.0");
    });
    if (found == sockets.list.end())
        throw ToolError(exitUnreachable, "nobody on this host has " + options.address +
                                             "; of another host only a notification would tell");
    print(options, found->unread == 0 ? "reads" : "datagrams lie unread", std::nullopt);
    return found->unread == 0 ? exitDone : exitProblems;
}

int knock(const PingOptions& options, const Address& address) {
    Knock knock(address);
    const Clock::time_point start = Clock::now();
    const Clock::time_point end =
        start + std::chrono::milliseconds(static_cast<long>(options.timeout * 1000));
    const int error = knock.connect(end);
    if (error == ETIMEDOUT)
        throw ToolError(exitUnreachable,
                        options.address + (address.kind == Address::Kind::Pipe
                                               ? ": its queue is full; vornnet doctor tells who has it"
                                               : ": no answer; its queue is full, or the host is not there"));
    if (error != 0)
        throw ToolError(exitUnreachable, options.address + ": " + std::strerror(error));
    const bool isAccepted = knock.awaitAcceptance(end);
    print(options, isAccepted ? "accepts" : "nobody has accepted", Clock::now() - start);
    return isAccepted ? exitDone : exitUnreachable;
}

int runPing(PingOptions& options) {
    const LibraryRecords records(options.logLevel);
    const Interruption interruption(std::chrono::milliseconds(0));
    const Address address = parseAddress(options.address);
    requireKnownHost(address);
    return address.kind == Address::Kind::Udp ? lookAtPort(options, address) : knock(options, address);
}

} // namespace

void addPing(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<PingOptions>();
    CLI::App* command =
        addCommand(app, "ping", "See whether somebody accepts at an address, and how soon", *options);
    command->add_option("ADDRESS", options->address, std::string("Address of the server: ") + addressHelp)
        ->required();
    command->add_option("--timeout", options->timeout, "Give up after SECONDS (1)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 1000000.0));
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runPing);
}

} // namespace VornTool
