// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Hostile bytes into each kind of server, from a plain socket, and any sequence of reads on the connection
// that the server hands out. The input's first byte chooses the kind, the next ones the reads, the rest is
// sent.

#include "Input.h"
#include "Sandbox.h"

#include <VornException.h>
#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace VornNet;

namespace {

class TcpServer : public VornServerSocket {
public:
    TcpServer() : VornServerSocket(6001, 5, "127.0.0.1") {}

    using VornServerSocket::init;
};

class UdpServer : public VornUDPServerSocket {
public:
    UdpServer() : VornUDPServerSocket(6002, "127.0.0.1", 65'535) {}

    using VornUDPServerSocket::init;
};

void check(bool holds) {
    require(holds, "the peer's own system calls work");
}

int connectedSocket(int kind) {
    if (kind == 0) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        VornTest::pipePath("fuzz").copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        check(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
        return fd;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kind == 1 ? 6001 : 6002);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = ::socket(AF_INET, kind == 1 ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (kind == 1) {
        // A reset at the end leaves no port in TIME_WAIT behind, of which a million connections would need as
        // many.
        const linger now{1, 0};
        check(::setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now) == 0);
    }
    check(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    return fd;
}

void peekLine(VornConnection& connection) {
    char line[64];
    int nError = 0;
    int nSize = sizeof line;
    connection.peekLine(line, nSize, nError);
    require(nSize >= 0 && nSize < static_cast<int>(sizeof line), "a line is looked at within the buffer");
}

void readOne(VornConnection& connection, int operation) {
    switch (operation) {
    case 0:
        connection.receiveShort();
        break;
    case 1:
        connection.receiveInt();
        break;
    case 2:
        connection.receiveLong();
        break;
    default:
        connection.receiveString();
        break;
    }
}

VornIPCServer& server(int kind) {
    // Never destroyed: the fuzzer ends the process where it stands.
    static VornSmartPointer<VornIPCServer>& pipe =
        *new VornSmartPointer<VornIPCServer>(new VornPipeServer("fuzz"));
    static TcpServer& tcp = *new TcpServer;
    static UdpServer& udp = *new UdpServer;
    if (kind == 0)
        return *pipe;
    if (kind == 1) {
        tcp.init();
        return tcp;
    }
    udp.init();
    return udp;
}

} // namespace

// A length of 2 GiB is taken from the address sanitizer a third of a second at a time; refusing it is
// quicker, and what happens when memory is refused is worth trying too.
extern "C" const char* __asan_default_options() {
    return "max_allocation_size_mb=64:allocator_may_return_null=1";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int kind = input.byte() % 3;
    std::vector<int> operations(input.byte() % 8);
    for (int& operation : operations)
        operation = input.byte() % 4;
    const bool isPeeked = input.byte() % 2 != 0;
    const std::string bytes = input.rest();
    if (kind == 2 && bytes.empty())
        return 0; // an empty datagram ends the wait
    VornIPCServer& waiting = server(kind);
    const int peer = connectedSocket(kind);
    check(::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()));
    if (kind != 2)
        check(::shutdown(peer, SHUT_WR) == 0);
    const VornSmartPointer<VornConnection> client = waiting.waitForClient(false);
    require(client != nullptr, "a client is handed out");
    try {
        if (isPeeked && !bytes.empty()) // with nothing waiting, a look takes 200 ms
            peekLine(*client);
        for (const int operation : operations)
            readOne(*client, operation);
    } catch (const VornException& e) {
        require(e.getText() == "VornConnection::get: failed read", "nothing but a read fails");
    }
    ::close(peer);
    return 0;
}
