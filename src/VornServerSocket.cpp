// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornServerSocket.h"

#include "Descriptor.h"
#include "HostEntry.h"
#include "InternetAddress.h"
#include "PortBinding.h"
#include "ServerGate.h"
#include "ServerRegistry.h"
#include "SocketCell.h"
#include "VornSocketConnection.h"

#include <Cancellation.h>
#include <LogRecord.h>
#include <Probe.h>
#include <SharedField.h>
#include <SystemCalls.h>
#include <VornException.h>

#include <cerrno>

#include <arpa/inet.h>

namespace VornNet {

namespace {

constexpr const char* cCreateFailed = "VornServerSocket::init: failed to create socket.";
constexpr const char* cBindFailed = "VornServerSocket::init: failed to bind socket.";
constexpr const char* cNameFailed = "VornServerSocket::init: failed to get socket name.";
constexpr const char* cListenFailed = "VornServerSocket::init: failed to listen on bound socket.";

bool isListening(int fd) {
    int bListening = 0;
    socklen_t length = sizeof bListening;
    return System::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &bListening, &length) == 0 && bListening != 0;
}

/** @return the official name of the peer's host, empty when it has none. */
VornString identify(const sockaddr_in& peer) {
    const HostEntry host = HostEntry::byAddress(&peer.sin_addr, sizeof peer.sin_addr);
    if (!host.isFound())
        return {};
    // Kept: the port is shown as it stands in the address, in network byte order.
    logRecord(VornLogging::cTraceCoreLow, "VornServerSocket::waitForClient () Server connected to ",
              host.name(), ":", static_cast<int>(peer.sin_port));
    return host.name();
}

VornSmartPointer<VornConnection> makeClient(Descriptor& client, const sockaddr_in& peer, bool bIdentify,
                                            VornServerSocket* pServer) {
    const VornString sRemoteName = bIdentify ? identify(peer) : VornString();
    VornSmartPointer<VornConnection> spClient =
        new VornSocketConnection(client.number(), sRemoteName, pServer, false);
    client.release();
    // Other loopback addresses do not count as local.
    spClient->setLocalAccess(peer.sin_addr.s_addr == htonl(INADDR_LOOPBACK));
    return spClient;
}

} // namespace

VornServerSocket::VornServerSocket(int nPort, int nBacklog, const VornString& sBindAddress)
    : m_nPort(nPort), m_nBacklog(nBacklog), m_sBindAddress(sBindAddress), m_pSocketImpl(nullptr),
      m_bInitialized(false) {
    ServerRegistry::add(*this, m_pSocketImpl, [](VornIPCServer& server) {
        auto& self = static_cast<VornServerSocket&>(server);
        System::close(SocketCell::descriptorOf(self.m_pSocketImpl));
        delete static_cast<int*>(self.m_pSocketImpl);
        self.m_pSocketImpl = nullptr;
        self.m_bInitialized = false;
    });
}

VornServerSocket::~VornServerSocket() {
    VornServerSocket::close();
    ServerRegistry::remove(*this);
}

void VornServerSocket::waitForInit() {
    constexpr useconds_t cPause = 1000;
    while (!readShared(m_bInitialized))
        System::usleep(cPause);
}

void VornServerSocket::close() {
    if (readShared(m_pSocketImpl) == nullptr)
        return;
    const CancellationOff noCancellation;
    logRecord(VornLogging::cDebug, "VornServerSocket::close: closing socket ", readShared(m_nPort));
    ServerGate::Closing closing(*this, m_pSocketImpl);
    if (!closing.isNeeded())
        return;
    const int nPort = readShared(m_nPort);
    VORN_PROBE(server__closed, "tcp", m_sBindAddress.c_str(), nPort);
    closing.close(m_bInitialized, nPort);
}

int VornServerSocket::getPort() {
    return readShared(m_nPort);
}

const VornString& VornServerSocket::getBindAddress() {
    return m_sBindAddress;
}

void VornServerSocket::setPort(int nPort) {
    if (readShared(m_pSocketImpl) == nullptr)
        writeShared(m_nPort, nPort);
}

VornSmartPointer<VornConnection>
VornServerSocket::waitForClientImpl(bool bIdentify, VornString& sExceptionMessage, int& nErrorCode) {
    try {
        init();
    } catch (const VornException& e) {
        sExceptionMessage = e.getText();
        nErrorCode = e.getCode();
        return {};
    }
    while (readShared(m_pSocketImpl) != nullptr) {
        logRecord(VornLogging::cTraceCoreLow, "VornServerSocket::waitForClient: TCP Server on ",
                  readShared(m_nPort), " ready, accepting connections...");
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        ServerGate::Wait wait(*this, m_pSocketImpl);
        if (wait.descriptor() == -1)
            return {};
        Descriptor client(System::accept(wait.descriptor(), reinterpret_cast<sockaddr*>(&peer), &length));
        const int nError = client.isOpen() ? 0 : errno;
        // Asked while the descriptor is still ours: a socket that was shut down would fail forever.
        const bool bGoesOn =
            client.isOpen() || (!ServerGate::endsWait(nError) && isListening(wait.descriptor()));
        if (wait.end() || !wait.hasSocket())
            return {};
        if (client.isOpen()) {
            VORN_PROBE(connection__accepted, "tcp", m_sBindAddress.c_str(), readShared(m_nPort),
                       client.number());
            return makeClient(client, peer, bIdentify, this);
        }
        if (!bGoesOn)
            return {};
        logRecord(VornLogging::cError, "VornServerSocket::waitForClient: socket connection error. ", nError);
    }
    return {};
}

void VornServerSocket::init() {
    ServerGate::awaitClosing(*this);
    if (readShared(m_pSocketImpl) != nullptr)
        return;
    Descriptor socket(System::socket(AF_INET, SOCK_STREAM, 0));
    if (!socket.isOpen())
        throw VornException(cCreateFailed, errno);

    const VornString& sBindAddress = getBindAddress();
    const bool bAnyAddress = sBindAddress == "*";
    const int nPort = readShared(m_nPort);
    sockaddr_in address =
        makeSocketAddress(in_addr{bAnyAddress ? INADDR_ANY : ::inet_addr(sBindAddress.c_str())}, nPort);
    // Linux lets a server bind 255.255.255.255, which is also what inet_addr() returns for a text that is no
    // address.
    if (address.sin_addr.s_addr == INADDR_NONE)
        throw VornException(cBindFailed, EADDRNOTAVAIL);
    // Kept: no SO_REUSEADDR, so a port in TIME_WAIT is refused.
    const ServerRegistry::Opening opening(*this, socket.number());
    const int nError = bindPort(*this, nPort, socket.number(), address);
    if (nError != 0)
        throw VornException(cBindFailed, nError);
    socklen_t length = sizeof address;
    if (System::getsockname(socket.number(), reinterpret_cast<sockaddr*>(&address), &length) == -1)
        throw VornException(cNameFailed, errno);
    if (System::listen(socket.number(), m_nBacklog) == -1)
        throw VornException(cListenFailed, errno);
    logRecord(
        VornLogging::cTraceCoreLow, "VornServerSocket::init: Using IP Address ",
        [&] { return dottedText(address.sin_addr); }, " Port: ", static_cast<short>(nPort));

    void* cell = new int(socket.number());
    socket.release();
    VORN_PROBE(server__opened, "tcp", sBindAddress.c_str(), nPort, *static_cast<int*>(cell));
    writeShared(m_pSocketImpl, cell);
    writeShared(m_bInitialized, true);
}

} // namespace VornNet
