// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornUDPServerSocket.h"

#include "DatagramSend.h"
#include "Descriptor.h"
#include "HostEntry.h"
#include "InternetAddress.h"
#include "PortBinding.h"
#include "ServerGate.h"
#include "ServerRegistry.h"
#include "VornBufferConnection.h"

#include <Cancellation.h>
#include <LogRecord.h>
#include <Probe.h>
#include <SharedField.h>
#include <SystemCalls.h>
#include <VornException.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>

#include <arpa/inet.h>

namespace VornNet {

namespace {

constexpr const char* cCreateFailed = "VornUDPServerSocket::init: failed to create socket.";
constexpr const char* cBindFailed = "VornUDPServerSocket::init: failed to bind socket.";
constexpr const char* cNameFailed = "VornUDPServerSocket::init: failed to get socket name.";
constexpr const char* cNoBuffer =
    "VornUDPServerSocket::waitForClientImpl: failed to allocate receive buffer.";

/** @return the official name of the sender's host, empty when it has none. */
VornString identify(const sockaddr_in& sender) {
    const HostEntry host = HostEntry::byAddress(&sender.sin_addr, sizeof sender.sin_addr);
    if (!host.isFound())
        return {};
    // Kept: the port is shown as it stands in the address, in network byte order.
    logRecord(VornLogging::cTraceCoreLow, "VornUDPServerSocket::receive: Server connected to ", host.name(),
              ":", static_cast<int>(sender.sin_port));
    return host.name();
}

VornSmartPointer<VornConnection> makeClient(void* buffer, ssize_t count, const sockaddr_in& sender,
                                            bool bIdentify) {
    const VornString sRemoteName = bIdentify ? identify(sender) : VornString();
    VornSmartPointer<VornConnection> spClient =
        new VornBufferConnection(buffer, static_cast<int>(count), sRemoteName);
    // Kept: compared without conversion, so on this machine's byte order it is 1.0.0.127 that counts as
    // local.
    spClient->setLocalAccess(sender.sin_addr.s_addr == INADDR_LOOPBACK);
    return spClient;
}

} // namespace

VornUDPServerSocket::VornUDPServerSocket(int nPort, const VornString& sBindAddress, unsigned int nBufferSize)
    : VornServerSocket(nPort, 0, sBindAddress), m_nBufferSize(nBufferSize) {}

VornUDPServerSocket::~VornUDPServerSocket() {
    VornUDPServerSocket::close();
}

void VornUDPServerSocket::close() {
    if (readShared(m_pSocketImpl) == nullptr)
        return;
    const CancellationOff noCancellation;
    const VornString sLoopback("127.0.0.1");
    std::optional<DatagramSend> wakeUp;
    {
        ServerGate::Closing closing(*this, m_pSocketImpl);
        if (!closing.isNeeded())
            return;
        const int nPort = readShared(m_nPort);
        VORN_PROBE(server__closed, "udp", m_sBindAddress.c_str(), nPort);
        const bool bEnded = closing.close(m_bInitialized, nPort);
        wakeUp.emplace(sLoopback, nPort, false);
        // Before newcomers are let in, while no new socket can be bound: one would take the datagram for a
        // client. Another process that has the socket would, too. Port 0 cannot be sent to, and a
        // transmission that fails leaves its descriptor open.
        if (bEnded && (nPort & 0xFFFF) != 0)
            wakeUp->send("\0\1", 2);
    }
    // The waiting thread has left already, so the datagram may get lost. A log handler may use the server.
    wakeUp->logFailure();
}

VornSmartPointer<VornConnection>
VornUDPServerSocket::waitForClientImpl(bool bIdentify, VornString& sExceptionMessage, int& nErrorCode) {
    try {
        init();
    } catch (const VornException& e) {
        sExceptionMessage = e.getText();
        nErrorCode = e.getCode();
        return {};
    }
    // malloc() takes the 16 MiB of a sink without touching them; only what arrives costs memory.
    const std::unique_ptr<void, decltype(&std::free)> buffer(std::malloc(m_nBufferSize), &std::free);
    if (buffer == nullptr) {
        sExceptionMessage = cNoBuffer;
        nErrorCode = ENOMEM;
        return {};
    }
    for (;;) {
        logRecord(VornLogging::cDebug, "VornUDPServerSocket::receive: UDP Server on ", readShared(m_nPort),
                  " ready, accepting messages...");
        sockaddr_in sender{};
        socklen_t length = sizeof sender;
        ServerGate::Wait wait(*this, m_pSocketImpl);
        if (wait.descriptor() == -1)
            return {};
        const ssize_t count = System::recvfrom(wait.descriptor(), buffer.get(), m_nBufferSize, 0,
                                               reinterpret_cast<sockaddr*>(&sender), &length);
        const int nError = count == -1 ? errno : 0;
        // Looked at first: to a socket that is being closed, recvfrom() reports an empty datagram.
        if (wait.end() || (count > 0 && !wait.hasSocket()))
            return {};
        if (count > 0)
            return makeClient(buffer.get(), count, sender, bIdentify);
        if (count == 0) {
            logRecord(VornLogging::cDebug,
                      "VornUDPServerSocket::receive: UDP server: exiting gracefully got no message");
            return {};
        }
        if (nError == ECONNRESET || ServerGate::endsWait(nError)) {
            logRecord(VornLogging::cDebug, "VornUDPServerSocket::waitForClientImpl: socket error=", nError,
                      ", exiting");
            nErrorCode = nError;
            return {};
        }
        logRecord(VornLogging::cError,
                  "VornUDPServerSocket::receive: UDP server: failed to recvfrom (error:", nError, ")");
    }
}

void VornUDPServerSocket::init() {
    ServerGate::awaitClosing(*this);
    if (readShared(m_pSocketImpl) != nullptr)
        return;
    Descriptor socket(System::socket(AF_INET, SOCK_DGRAM, 0));
    if (!socket.isOpen())
        throw VornException(cCreateFailed, errno);

    const VornString& sBindAddress = getBindAddress();
    const int nPort = readShared(m_nPort);
    // Kept: a text that is no address binds 255.255.255.255, which Linux allows.
    sockaddr_in address = makeSocketAddress(
        in_addr{sBindAddress == "*" ? INADDR_ANY : ::inet_addr(sBindAddress.c_str())}, nPort);
    const ServerRegistry::Opening opening(*this, socket.number());
    const int nError = bindPort(*this, nPort, socket.number(), address);
    if (nError != 0)
        throw VornException(cBindFailed, nError);
    socklen_t length = sizeof address;
    if (System::getsockname(socket.number(), reinterpret_cast<sockaddr*>(&address), &length) == -1)
        throw VornException(cNameFailed, errno);
    logRecord(
        VornLogging::cTraceCoreLow, "VornUDPServerSocket::init: Using IP Address ",
        [&] { return dottedText(address.sin_addr); }, " Port: ", nPort);

    void* cell = new int(socket.number());
    socket.release();
    VORN_PROBE(server__opened, "udp", sBindAddress.c_str(), nPort, *static_cast<int*>(cell));
    writeShared(m_pSocketImpl, cell);
    writeShared(m_bInitialized, true);
}

} // namespace VornNet
