// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_LIMITEDCONNECTION_H
#define VORNNOTIFY_LIMITEDCONNECTION_H

#include "TimedSocket.h"

#include <VornConnection.h>

namespace VornNet {

/**
 * What VornExchange::limited() hands out: a connection over the socket of another one, with one deadline for
 * all that is done with it.
 */
class LimitedConnection : public VornConnection {
public:
    /** @param connection is connected by the socket @p fd, and outlives this one */
    LimitedConnection(VornConnection& connection, int fd, const Deadline& deadline);

    using VornConnection::transfer;

    void disconnect() override;
    long transfer(const char* buf, long bufLen, long* error) override;
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;
    bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;
    VornString getServerName() override;
    VornString getPortName() override;
    unsigned int getAccessRights() override;

    /** @return the socket's descriptor, or -1 after disconnect(). */
    int handle() const { return m_bConnected ? m_fd : -1; }

    const Deadline& deadline() const { return m_socket.deadline(); }

protected:
    int establishImpl(VornString& sExceptionMessage) override;

private:
    VornConnection& m_connection;
    int m_fd;
    TimedSocket m_socket;
};

} // namespace VornNet

#endif
