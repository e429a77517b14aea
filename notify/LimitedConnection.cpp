// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LimitedConnection.h"

#include <algorithm>
#include <cerrno>

namespace VornNet {

LimitedConnection::LimitedConnection(VornConnection& connection, int fd, const Deadline& deadline)
    : VornConnection(false, connection.getRemoteName()), m_connection(connection), m_fd(fd),
      m_socket(fd, deadline) {
    m_bConnected = true;
    m_bLocalAccess = connection.getLocalAccess();
}

void LimitedConnection::disconnect() {
    if (m_bConnected)
        m_connection.disconnect();
    cleanup();
}

long LimitedConnection::transfer(const char* buf, long bufLen, long* error) {
    *error = m_bConnected ? 0 : ENOTCONN;
    return *error == 0 ? m_socket.send(buf, bufLen, error) : -1;
}

long LimitedConnection::receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) {
    *error = m_bConnected ? 0 : ENOTCONN;
    if (*error != 0)
        return -1;
    return toRead > 0 ? m_socket.receive(bufPtr, toRead, error, bWaitForAll) : 0;
}

bool LimitedConnection::peekBytes(void* pBuffer, int& nSize, int& nErrorCode) {
    long error = m_bConnected ? 0 : ENOTCONN;
    const long count =
        error == 0 ? m_socket.peek(static_cast<char*>(pBuffer), std::max(nSize, 0), &error) : -1;
    nErrorCode = static_cast<int>(count == -1 ? error : 0);
    nSize = static_cast<int>(std::max(count, 0L));
    return nSize != 0;
}

VornString LimitedConnection::getServerName() {
    return m_connection.getServerName();
}

VornString LimitedConnection::getPortName() {
    return m_connection.getPortName();
}

unsigned int LimitedConnection::getAccessRights() {
    return m_connection.getAccessRights();
}

int LimitedConnection::establishImpl(VornString& /*sExceptionMessage*/) {
    // What has been disconnected stays so: the operation that follows finds that (ENOTCONN).
    return 0;
}

} // namespace VornNet
