// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNIPCSERVER_H
#define VORNIPCSERVER_H

#include "VornConnection.h"
#include "VornNetExport.h"

#include <VornObjectBase.h>
#include <VornSmartPointer.h>
#include <VornString.h>

namespace VornNet {

/**
 * A server: a thread waits on it for a client and receives that client as a connection.
 *
 * One thread calls waitForClient() in a loop; another ends the wait with close(). The next wait opens a
 * closed server again.
 *
 * Thread-safety: close() may be called from any thread while one thread waits. Only one thread waits at a
 * time.
 * Blocking: waitForClient() until a client arrives or the server is closed; waitForInit() until it is ready.
 * Ownership: a server is created with `new` and owned through VornSmartPointer, and so are its connections.
 * Signals: none raised.
 * Errors: waitForClient() throws VornException with the transport's text and error number.
 */
class VORNNET_API VornIPCServer : public VornObjectBase {
public:
    VornIPCServer();
    ~VornIPCServer() override;

    /**
     * Waits for the next client.
     * @param bIdentify whether to look the client's host name up; it becomes the connection's remote name
     * @return the client, connected; empty when the server was closed, which callers must test for
     * @throws VornException with text and error number when the server cannot be opened or waited on. Any
     * other exception ends the process
     */
    virtual VornSmartPointer<VornConnection> waitForClient(bool bIdentify);

    /** Waits until the server is ready for clients, without limit. */
    virtual void waitForInit() = 0;

    /** Closes the server and ends another thread's wait for a client. Harmless when it is closed. */
    virtual void close() = 0;

protected:
    /**
     * Does the waiting of waitForClient().
     * @param sExceptionMessage receives a text on failure, and stays empty when the server was closed
     * @param nErrorCode        receives an errno value on failure
     */
    virtual VornSmartPointer<VornConnection> waitForClientImpl(bool bIdentify, VornString& sExceptionMessage,
                                                               int& nErrorCode) = 0;

private:
    VornIPCServer(const VornIPCServer&) = delete;
    VornIPCServer& operator=(const VornIPCServer&) = delete;
};

} // namespace VornNet

#endif
