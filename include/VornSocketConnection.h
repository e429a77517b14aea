// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSOCKETCONNECTION_H
#define VORNSOCKETCONNECTION_H

#include "VornConnection.h"

namespace VornNet {

class VornServerSocket;

/**
 * A TCP connection over IPv4.
 *
 * A client's connection is created with a host text and a port and connects in its first operation. A text
 * that contains a letter is looked up as a name; any other is a dotted address. A server's connection is
 * created with an accepted socket and is connected from the start. disconnect() closes the socket; when a
 * client's connection is used again, it connects again.
 *
 * A name that cannot be resolved is taken for 0.0.0.0, which reaches the local host, unless identification is
 * requested. If that must not happen, request identification, or resolve the name first.
 *
 * Thread-safety: none; one thread at a time. Several threads may establish different connections at once.
 * Blocking: connecting, reading and writing block as connect(2), recv(2) and send(2) do, without timeout.
 * Ownership: the socket belongs to the connection and is close-on-exec.
 * Signals: writing to a peer that has closed raises SIGPIPE; every program that writes must ignore it.
 * Errors: as VornConnection; establishing throws "VornSocketConnection::establish: could not find host.",
 * "VornSocketConnection::establish: connection request failed." with the error number, and
 * "VornConnection::connectToService: connection to remote service failed." with 0. If no socket can be
 * created, establishing succeeds and the next operation fails with 107 (ENOTCONN).
 */
class VORNNET_API VornSocketConnection : public VornConnection {
public:
    /**
     * Creates a connected connection around an accepted socket.
     * @param client             the socket, which belongs to the connection from now on
     * @param sRemoteName        the peer's name, may be empty
     * @param pServer            the server that accepted it and must live as long as getPortName() is used;
     * or null
     * @param bClientConnection  whether this end counts as the client
     */
    VornSocketConnection(int client, const VornString& sRemoteName, VornServerSocket* pServer,
                         bool bClientConnection);

    /**
     * Creates a client's connection; no network activity yet.
     * @param sRemoteName  host name or dotted IPv4 address
     * @param nPort        port in host byte order; its low 16 bits count
     * @param bRaw         the initial state of setRaw()
     * @param bIdentify    whether a host that the resolver does not know is refused
     */
    VornSocketConnection(const VornString& sRemoteName, int nPort, bool bRaw, bool bIdentify);

    /** Closes the socket. */
    ~VornSocketConnection() override;

    using VornConnection::transfer;

    /** Closes the socket, if there is one. */
    void disconnect() override;

    /** Sends all @p bufLen bytes. @return their number; -1 with the errno value after a failed send(2). */
    long transfer(const char* buf, long bufLen, long* error) override;

    /** Receives. @return the count; -1 with the errno value, or with 107 (ENOTCONN) when the peer has closed.
     */
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;

    /** Blocks until something is waiting. @return false with size 0 and error 0 when the peer has closed. */
    bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;

    /** @return the local IPv4 address, dotted. It must not be called on a connection without a socket. */
    VornString getServerName() override;

    /** @return the port of the server that accepted the connection; "0" on a client's connection. */
    VornString getPortName() override;

    /** @return a pointer to the int that holds the socket's descriptor, or null; it stays the connection's.
     */
    virtual void* getSocket();

protected:
    int establishImpl(VornString& sExceptionMessage) override;

    void* m_pClient;                   ///< an int on the heap with the descriptor, or null
    int m_nPort;                       ///< port to connect to; 0 when accepted
    bool m_bIdentify;                  ///< a host that is not known is refused
    VornServerSocket* m_pSourceServer; ///< the server that accepted it, not owned, or null

private:
    VornSocketConnection(const VornSocketConnection&) = delete;
    VornSocketConnection& operator=(const VornSocketConnection&) = delete;

    friend class ServedConnection;
};

/** Starts the socket layer, which needs no start on Linux. @return true. Thread-safe. */
VORNNET_API bool VNETInitWinsock();

/** Ends the socket layer; nothing to do on Linux. Thread-safe. */
VORNNET_API void VNETFinitWinsock();

} // namespace VornNet

#endif
