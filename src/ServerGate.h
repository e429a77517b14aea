// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_SERVERGATE_H
#define VORNNET_SERVERGATE_H

#include "VornNetExport.h"

#include <ForkHandlers.h>
#include <IntrusiveList.h>

#include <mutex>
#include <thread>

namespace VornNet {

class VornIPCServer;

/**
 * Lets one thread close a TCP or UDP server's socket while another waits on it.
 *
 * A descriptor's number may be given to a stranger as soon as it is closed, so nobody may close it while
 * somebody is about to use it. The closing thread shuts the socket down, which ends the wait, closes it when
 * the waiting thread has left, and holds newcomers back until it is done. So close() returns when the port is
 * free, and the next wait never meets a half-closed socket.
 *
 * Some waiting threads cannot be waited for: the closing thread itself, when it closes in a signal handler,
 * and those that wait on a socket which is shared with the parent of a fork, where a shutdown() would end the
 * parent's wait. They close the socket themselves when they leave it. In the parent a socket that a child may
 * have is shut down only if a thread waits on it: otherwise the child goes on with it.
 *
 * A pipe server closes by another protocol because its close() does not wait: it wakes the waiting thread
 * through a pipe, and that thread releases what the server holds.
 *
 * Servers are told apart by their address; the state lives on the stacks of the threads concerned, because
 * the layout of a server leaves no room for it.
 */
class ServerGate {
public:
    /** One thread's wait on a server's socket. */
    class Wait : public IntrusiveList<Wait>::Link {
    public:
        /** Waits while the server is being closed. @param cell where the server keeps its socket */
        Wait(const VornIPCServer& server, void* const& cell);
        ~Wait();

        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;

        /** @return the socket; -1 when the server has none. */
        int descriptor() const { return m_descriptor; }

        /**
         * Ends the wait. @return whether the server was closed meanwhile. Then the closing is over, and the
         * server may be gone: nothing of it may be touched any more
         */
        bool end();

        /** @return whether the server had a socket as the wait ended: a derived class may give it up itself.
         */
        bool hasSocket() const { return m_hasSocket; }

    private:
        friend class ServerGate;

        const VornIPCServer* m_server; // null when the socket is left to this thread
        std::thread::id m_thread;
        void* const& m_cell;
        int m_descriptor;
        bool m_wasClosed;
        bool m_hasSocket;
    };

    /** The closing of a server's socket by one thread. */
    class Closing : public IntrusiveList<Closing>::Link {
    public:
        /** Waits while another thread closes the server. @param cell where the server keeps its socket */
        Closing(const VornIPCServer& server, void*& cell);

        /** Lets newcomers in. */
        ~Closing();

        Closing(const Closing&) = delete;
        Closing& operator=(const Closing&) = delete;

        /** @return whether there is a socket to close. */
        bool isNeeded() const { return m_isNeeded; }

        /**
         * Ends the waits, closes the socket when the waiting threads have left, frees the cell and marks the
         * server as closed. Another thread may destroy the server now: nothing of it may be touched any more.
         * @param nPort where it was open
         * @return whether the socket was shut down; not if another process may go on with it
         */
        bool close(bool& bInitialized, int nPort);

    private:
        friend class ServerGate;

        void shutDown(int descriptor, std::unique_lock<std::mutex>& lock);

        const VornIPCServer* m_server;
        void*& m_cell;
        bool m_isNeeded;
        bool m_isShared; // with the process that this one was forked from
    };

    /** Waits while the server is being closed. */
    static void awaitClosing(const VornIPCServer& server);

    /** @return whether accept() or recvfrom() reports this when the server's end is the reason. */
    static bool endsWait(int nError);

private:
    static void startAfresh();
    static void awaitClosing(const VornIPCServer* server, std::unique_lock<std::mutex>& lock);
    static bool isClosing(const VornIPCServer* server);
    static bool isWaitedOn(const VornIPCServer* server, bool byThisThread);

    static IntrusiveList<Wait> s_waits;
    static IntrusiveList<Closing> s_closings;
    static const ForkHandlers s_forkHandlers;
};

} // namespace VornNet

#endif
