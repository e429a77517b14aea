// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornSocketConnection.h"

#include "Descriptor.h"
#include "HostEntry.h"
#include "InternetAddress.h"
#include "RemoteHost.h"
#include "SocketCell.h"
#include "StreamSocket.h"
#include "VornServerSocket.h" // for getPortName(): a server's connection reports the server's port

#include <LogRecord.h>
#include <Probe.h>
#include <SystemCalls.h>
#include <VornException.h>

#include <cerrno>
#include <cstdint>
#include <string>

namespace VornNet {

namespace {

constexpr const char* cCreateFailed = "VornSocketConnection::establish: socket creation failed.";
constexpr const char* cHostUnknown = "VornSocketConnection::establish: could not find host.";
constexpr const char* cConnectFailed = "VornSocketConnection::establish: connection request failed.";
constexpr const char* cServiceFailed =
    "VornConnection::connectToService: connection to remote service failed.";

void logConnecting(const HostEntry& host, int nPort) {
    logRecord(VornLogging::cTraceCoreHigh, "VornSocketConnection::establish: connecting to: ", host.name(),
              ":", nPort);
}

in_addr resolveName(const RemoteHost& host, int nPort, bool bIdentify) {
    const HostEntry entry = HostEntry::byName(host.text());
    if (entry.isFound()) {
        logConnecting(entry, nPort);
        return entry.firstAddress();
    }
    if (bIdentify)
        throw VornException(cHostUnknown, entry.error());
    // Kept: a name that nobody knows is attempted as 0.0.0.0, which Linux takes for the local host.
    return in_addr{INADDR_ANY};
}

void identifyAddress(in_addr address, int nPort) {
    logRecord(VornLogging::cTraceCoreHigh, "VornSocketConnection::establish: using gethostbyaddr.");
    // Kept: a length of 8 decides which name services answer; the hosts file does not, DNS does.
    const std::uint64_t lookedUp = address.s_addr;
    const HostEntry host = HostEntry::byAddress(&lookedUp, sizeof lookedUp);
    if (!host.isFound())
        throw VornException(cHostUnknown, host.error());
    logConnecting(host, nPort);
}

in_addr findTarget(const VornString& sRemoteName, int nPort, bool bIdentify) {
    const RemoteHost host(sRemoteName);
    if (host.isName())
        return resolveName(host, nPort, bIdentify);
    const in_addr address = host.address();
    if (bIdentify)
        identifyAddress(address, nPort);
    return address;
}

} // namespace

VornSocketConnection::VornSocketConnection(int client, const VornString& sRemoteName,
                                           VornServerSocket* pServer, bool bClientConnection)
    : VornConnection(bClientConnection, sRemoteName), m_pClient(nullptr), m_nPort(0), m_bIdentify(false),
      m_pSourceServer(pServer) {
    m_pClient = new int(client);
    m_bConnected = true;
}

VornSocketConnection::VornSocketConnection(const VornString& sRemoteName, int nPort, bool bRaw,
                                           bool bIdentify)
    : VornConnection(true, bRaw, sRemoteName), m_pClient(nullptr), m_nPort(nPort), m_bIdentify(bIdentify),
      m_pSourceServer(nullptr) {}

VornSocketConnection::~VornSocketConnection() {
    SocketCell::forget(m_pClient);
    VornSocketConnection::disconnect();
}

void VornSocketConnection::disconnect() {
    SocketCell::close(m_pClient);
    cleanup();
}

long VornSocketConnection::transfer(const char* buf, long bufLen, long* error) {
    VornString sUnused;
    *error = establishImpl(sUnused);
    if (*error != 0)
        return 0;
    return StreamSocket::send(m_pClient, buf, bufLen, error);
}

long VornSocketConnection::receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) {
    VornString sUnused;
    *error = establishImpl(sUnused);
    if (*error != 0)
        return 0;
    return StreamSocket::receive(m_pClient, bufPtr, toRead, error, bWaitForAll);
}

bool VornSocketConnection::peekBytes(void* pBuffer, int& nSize, int& nErrorCode) {
    VornString sUnused;
    nErrorCode = establishImpl(sUnused);
    if (nErrorCode != 0)
        return false;
    return StreamSocket::peek(m_pClient, pBuffer, nSize, nErrorCode);
}

VornString VornSocketConnection::getServerName() {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (System::getsockname(SocketCell::descriptorOf(m_pClient), reinterpret_cast<sockaddr*>(&address),
                            &length) == 0)
        m_sServerName = dottedText(address.sin_addr);
    return m_sServerName;
}

VornString VornSocketConnection::getPortName() {
    // Kept: it is the listening port of the server; a client's connection reports 0, not the port it connects
    // to.
    m_sPortName = std::to_string(m_pSourceServer != nullptr ? m_pSourceServer->getPort() : 0);
    return m_sPortName;
}

void* VornSocketConnection::getSocket() {
    return m_pClient;
}

int VornSocketConnection::establishImpl(VornString& sExceptionMessage) {
    if (m_bConnected || m_pClient != nullptr)
        return 0;
    try {
        Descriptor socket(System::socket(AF_INET, SOCK_STREAM, 0));
        if (!socket.isOpen())
            throw VornException(cCreateFailed, errno);
        SocketCell::open(m_pClient, socket.number());
        socket.release();
        const sockaddr_in target =
            makeSocketAddress(findTarget(m_sRemoteName, m_nPort, m_bIdentify), m_nPort);
        if (System::connect(SocketCell::descriptorOf(m_pClient), reinterpret_cast<const sockaddr*>(&target),
                            sizeof target) == -1)
            throw VornException(cConnectFailed, errno);
        if (!connectToServiceImpl())
            throw VornException(cServiceFailed, 0);
        m_bConnected = true;
        VORN_PROBE(connection__established, "tcp", m_sRemoteName.c_str(), m_nPort,
                   SocketCell::descriptorOf(m_pClient));
        initialize();
        return 0;
    } catch (const VornException& e) {
        // Kept: without a socket this counts as success, and the operation that follows finds none
        // (ENOTCONN).
        if (m_pClient == nullptr)
            return 0;
        SocketCell::close(m_pClient);
        sExceptionMessage = e.getText();
        const int nCode = e.getCode();
        VORN_PROBE(connection__refused, "tcp", m_sRemoteName.c_str(), m_nPort, nCode);
        return nCode;
    } catch (...) {
        // A half-connected socket that stayed would pass for an established connection.
        SocketCell::close(m_pClient);
        throw;
    }
}

bool VNETInitWinsock() {
    return true;
}

void VNETFinitWinsock() {}

} // namespace VornNet
