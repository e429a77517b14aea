// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNPIPECONNECTION_H
#define VORNPIPECONNECTION_H

#include "VornConnection.h"

namespace VornNet {

/**
 * A connection over a local named pipe: a Unix-domain stream socket in the pipe directory.
 *
 * A client's connection is created with the pipe's short name and connects in its first operation. A pipe
 * server's connection is created with an accepted socket. disconnect() closes the socket; when a client's
 * connection is used again, it connects to the same name again.
 *
 * Thread-safety: none; one thread at a time.
 * Blocking: as connect(2), recv(2) and send(2) on unix(7) sockets; connecting blocks while the server's queue
 * is full. There are no timeouts.
 * Ownership: the socket belongs to the connection and is close-on-exec.
 * Signals: writing to a peer that has closed raises SIGPIPE; every program that writes must ignore it.
 * Errors: as VornConnection; establishing throws "VornPipeConnection::establish: connection request failed."
 * with the error number (2 no such pipe, 111 nobody listens, 13 no permission, 36 name too long), and
 * "VornConnection::connectToService: connection to remote service failed." with 0. If no socket can be
 * created, establishing succeeds and the next operation fails with 107 (ENOTCONN).
 */
class VORNNET_API VornPipeConnection : public VornConnection {
public:
    /** Creates a client's connection to the pipe of that short name; it does not connect yet. */
    explicit VornPipeConnection(const VornString& sPipeName);

    /**
     * Creates a server's connection.
     * @param pPipeHandle    points to an int with the accepted socket's descriptor, which belongs to the
     *                       connection from now on; the int itself is not kept
     * @param iAccessRights  the access rights to report
     */
    VornPipeConnection(void* pPipeHandle, unsigned int iAccessRights);

    /** Closes the socket. */
    ~VornPipeConnection() override;

    using VornConnection::transfer;

    /** Closes the socket, if there is one. */
    void disconnect() override;

    /** Sends all @p bufLen bytes. @return their number; 0, unlike TCP, with the errno value after a failure.
     */
    long transfer(const char* buf, long bufLen, long* error) override;

    /** Receives. @return the count; -1 with the errno value, or with 107 (ENOTCONN) when the peer has closed.
     */
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;

    /** Blocks until something is waiting. @return false with size 0 and error 0 when the peer has closed. */
    bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;

    /** @return 1 for a client's connection, the server's access privileges for a server's. */
    unsigned int getAccessRights() override;

protected:
    int establishImpl(VornString& sExceptionMessage) override;

    VornString m_sPipeName;       ///< short name; empty when accepted
    void* m_pipeHandle;           ///< an int on the heap with the descriptor, or null
    unsigned int m_iAccessRights; ///< what getAccessRights() reports

private:
    VornPipeConnection(const VornPipeConnection&) = delete;
    VornPipeConnection& operator=(const VornPipeConnection&) = delete;

    friend class ServedConnection;
};

} // namespace VornNet

#endif
