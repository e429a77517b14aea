// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornPipeConnection.h"

#include "Descriptor.h"
#include "PipeAddress.h"
#include "SocketCell.h"
#include "StreamSocket.h"

#include <Probe.h>
#include <SystemCalls.h>
#include <VornException.h>

#include <cerrno>

namespace VornNet {

namespace {

constexpr const char* cCreateFailed = "VornPipeConnection::establish: pipe creation failed.";
constexpr const char* cConnectFailed = "VornPipeConnection::establish: connection request failed.";
constexpr const char* cServiceFailed =
    "VornConnection::connectToService: connection to remote service failed.";

void connectTo(int fd, const VornString& sPath) {
    const PipeAddress address(sPath);
    if (!address.fits())
        throw VornException(cConnectFailed, ENAMETOOLONG);
    if (System::connect(fd, address.get(), address.length()) < 0)
        throw VornException(cConnectFailed, errno);
}

} // namespace

VornPipeConnection::VornPipeConnection(const VornString& sPipeName)
    : m_sPipeName(sPipeName), m_pipeHandle(nullptr), m_iAccessRights(1) {}

VornPipeConnection::VornPipeConnection(void* pPipeHandle, unsigned int iAccessRights)
    : m_pipeHandle(new int(SocketCell::descriptorOf(pPipeHandle))), m_iAccessRights(iAccessRights) {}

VornPipeConnection::~VornPipeConnection() {
    SocketCell::forget(m_pipeHandle);
    VornPipeConnection::disconnect();
}

void VornPipeConnection::disconnect() {
    SocketCell::close(m_pipeHandle);
    cleanup();
}

long VornPipeConnection::transfer(const char* buf, long bufLen, long* error) {
    VornString sUnused;
    *error = establishImpl(sUnused);
    if (*error != 0)
        return 0;
    const long sent = StreamSocket::send(m_pipeHandle, buf, bufLen, error);
    return sent == -1 ? 0 : sent; // kept: unlike the TCP transport; callers look at the error
}

long VornPipeConnection::receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) {
    VornString sUnused;
    *error = establishImpl(sUnused);
    if (*error != 0)
        return 0;
    return StreamSocket::receive(m_pipeHandle, bufPtr, toRead, error, bWaitForAll);
}

bool VornPipeConnection::peekBytes(void* pBuffer, int& nSize, int& nErrorCode) {
    VornString sUnused;
    nErrorCode = establishImpl(sUnused);
    if (nErrorCode != 0)
        return false;
    return StreamSocket::peek(m_pipeHandle, pBuffer, nSize, nErrorCode);
}

unsigned int VornPipeConnection::getAccessRights() {
    return m_iAccessRights;
}

int VornPipeConnection::establishImpl(VornString& sExceptionMessage) {
    if (m_pipeHandle != nullptr)
        return 0;
    try {
        const VornString sPath = PipeAddress::pathOf(m_sPipeName);
        Descriptor socket(System::socket(AF_UNIX, SOCK_STREAM, 0));
        if (!socket.isOpen())
            throw VornException(cCreateFailed, errno);
        SocketCell::open(m_pipeHandle, socket.number());
        connectTo(socket.release(), sPath);
        if (!connectToServiceImpl())
            throw VornException(cServiceFailed, 0);
        m_bConnected = true;
        VORN_PROBE(connection__established, "pipe", m_sPipeName.c_str(), 0,
                   SocketCell::descriptorOf(m_pipeHandle));
        initialize();
        return 0;
    } catch (const VornException& e) {
        // Kept: without a socket this counts as success, and the operation that follows finds none
        // (ENOTCONN).
        if (m_pipeHandle == nullptr)
            return 0;
        SocketCell::close(m_pipeHandle);
        sExceptionMessage = e.getText();
        const int nCode = e.getCode();
        VORN_PROBE(connection__refused, "pipe", m_sPipeName.c_str(), 0, nCode);
        return nCode;
    } catch (...) {
        // A half-connected socket that stayed would pass for an established connection.
        SocketCell::close(m_pipeHandle);
        throw;
    }
}

} // namespace VornNet
