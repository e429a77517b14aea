// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNPIPESERVER_H
#define VORNPIPESERVER_H

#include "VornIPCServer.h"

#include <VornCriticalSection.h>

namespace VornNet {

/**
 * A server on a local named pipe: a Unix-domain stream socket whose file is in the pipe directory.
 *
 * It listens from its creation. One thread waits for clients. close() wakes it through a private pipe, and
 * the waiting thread releases the socket itself; without a waiting thread close() releases it at once. The
 * next wait binds the same path again. The file is never removed, only replaced: a server silently takes over
 * the path from any other server. The directory, "/opt/vorn/hostmgr/var/lib/kestrel/rendez/", is never
 * created.
 *
 * Thread-safety: close() and the destructor may be called from any thread while one thread waits. Each
 * close() holds the lock m_lock.
 * Blocking: the wait as select(2); the destructor up to 10 seconds for a thread that is still waiting.
 * Ownership: the sockets belong to the server and are close-on-exec.
 * Signals: a signal that is handled on the waiting thread ends the wait with "pipe read error. ".
 * Errors: the constructors and the wait throw, with the error number, "VornPipeServer::init: failed to create
 * pipe.", "... failed to prepare pipe." (2 no directory, 13 not writable, 36 name too long) and "... failed
 * to listen on bound pipe."; the wait also "VornPipeServer::waitForClient: pipe not setup. ", "... pipe read
 * error. ", "... connection error. " and "... error on select. ".
 */
class VORNNET_API VornPipeServer : public VornIPCServer {
public:
    /** Listens on the pipe of that short name; its file gets mode 0770 and the caller's owner and group. */
    explicit VornPipeServer(const VornString& sPipeName);

    /**
     * Listens likewise, and may let a group in.
     * @param iAccessPrivileges  reported by every connection; with 1 the socket file is given to the group
     * @param sUserGroupName     the group, see getgrnam(3); one that does not exist is logged and ignored
     */
    VornPipeServer(const VornString& sPipeName, unsigned int iAccessPrivileges,
                   const VornString& sUserGroupName);

    /** Closes the server and waits up to 10 seconds for a waiting thread to leave; the file stays. */
    ~VornPipeServer() override;

    /** Returns at once: the server listens from its construction. */
    void waitForInit() override;

    /** Wakes the waiting thread, or releases the socket when there is none. It does not wait for that thread.
     */
    void close() override;

    /** @return the path of the pipe of that short name, which is appended unchecked to the pipe directory. */
    static VornString getFullPipeName(const VornString& sPipeName);

protected:
    VornSmartPointer<VornConnection> waitForClientImpl(bool bIdentify, VornString& sExceptionMessage,
                                                       int& nErrorCode) override;

    /** Binds and listens unless the server does. @throws VornException, see above */
    virtual void init();

    /** What a listening server holds. */
    struct _pipe {
        int m_hClientPipe;     ///< the listening socket
        int m_hRWPipe[2];      ///< the wake-up pipe: read end, write end
        bool m_bClientWaiting; ///< whether a thread waits; guarded by a lock of the library
    };

    VornString m_sPipeName;           ///< short name
    void* m_pipeHandle;               ///< the _pipe record, or null; atomic
    VornCriticalSectionObject m_lock; ///< held over every close()
    unsigned int m_iAccessPrivileges; ///< 1 gives the file to the group
    VornString m_sUserGroupName;      ///< the group

private:
    VornPipeServer(const VornPipeServer&) = delete;
    VornPipeServer& operator=(const VornPipeServer&) = delete;

    class VORNNET_LOCAL Waiting;
    class VORNNET_LOCAL Releasing;
    VORNNET_LOCAL const _pipe* record() const;
    VORNNET_LOCAL bool isReleasable() const;
    VORNNET_LOCAL bool isSignalable() const;
    VORNNET_LOCAL void takeOver();
    VORNNET_LOCAL static void releaseRecord(void*& pipeHandle);
    VORNNET_LOCAL VornSmartPointer<VornConnection> shutDown(Waiting& waiting);
    VORNNET_LOCAL VornSmartPointer<VornConnection>
    acceptClient(Waiting& waiting, VornString& sExceptionMessage, int& nErrorCode);
};

} // namespace VornNet

#endif
