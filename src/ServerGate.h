// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_SERVERGATE_H
#define VORNNET_SERVERGATE_H

#include "VornNetExport.h"

#include <IntrusiveList.h>

namespace VornNet {

/**
 * Lets one thread close a TCP or UDP server's socket while another waits on it.
 *
 * A descriptor's number may be given to a stranger as soon as it is closed, so nobody may close it while
 * somebody is about to use it. The closing thread shuts the socket down, which ends the wait, closes it when
 * the waiting thread has left, and holds newcomers back until it is done. So close() returns when the port is
 * free, and whoever waits again never meets a socket that is half closed.
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
        Wait(const void* server, void* const& cell);
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

    private:
        friend class ServerGate;

        const void* m_server;
        int m_descriptor;
        bool m_wasClosed;
    };

    /** The closing of a server's socket by one thread. */
    class Closing : public IntrusiveList<Closing>::Link {
    public:
        /** Waits while another thread closes the server. @param cell where the server keeps its socket */
        Closing(const void* server, void*& cell);

        /** Lets newcomers in. */
        ~Closing();

        Closing(const Closing&) = delete;
        Closing& operator=(const Closing&) = delete;

        /** @return whether there is a socket to close. */
        bool isNeeded() const { return m_isNeeded; }

        /** Ends the waits and closes the socket when the waiting threads have left. */
        void closeSocket();

        /**
         * Sets the server's pointer to null and frees the cell. Another thread may take the server for closed
         * now and destroy it: nothing of it may be touched any more.
         */
        void releaseCell();

    private:
        friend class ServerGate;

        const void* m_server;
        void*& m_cell;
        bool m_isNeeded;
    };

    /** Waits while the server is being closed. */
    static void awaitClosing(const void* server);

    /** @return whether accept() or recvfrom() reports this when the server's end is the reason. */
    static bool endsWait(int nError);

private:
    static bool isClosing(const void* server);
    static bool isWaitedOn(const void* server);

    static IntrusiveList<Wait> s_waits;
    static IntrusiveList<Closing> s_closings;
};

} // namespace VornNet

#endif
