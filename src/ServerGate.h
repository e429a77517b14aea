// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_SERVERGATE_H
#define VORNNET_SERVERGATE_H

#include "VornNetExport.h"

namespace VornNet {

/**
 * Lets one thread close a server's socket while another is blocked on it.
 *
 * A descriptor's number may be given to a stranger as soon as it is closed, so nobody may close it while
 * somebody is about to use it. The waiting thread is on a Visit while it uses the socket. The closing thread
 * makes a Closure, which sends visitors away by shutting the socket down, closes it when they are gone, and
 * holds newcomers back until it is done. So close() returns when the port is free, and whoever waits again
 * never meets a socket that is half closed. Servers are told apart by their address; the state lives on the
 * stacks of the threads concerned, because the layout of a server leaves no room for it.
 */
class ServerGate {
    /** One thread that is concerned with the socket of one server. */
    struct Entry {
        const void* server;
        bool isClosure;
        bool wasClosed; // visitors: a closure has sent them away
        Entry* next;
    };

public:
    /** The waiting thread's use of the socket. */
    class Visit {
    public:
        /** Waits while the server is being closed. @param cell where the server keeps its socket */
        Visit(const void* server, void* const& cell);
        ~Visit();

        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

        /** @return the socket; -1 when the server has none. */
        int descriptor() const { return m_descriptor; }

        /**
         * Ends the visit. @return whether the server was closed meanwhile. Then the closing is over, and the
         * server may be gone: nothing of it may be touched any more
         */
        bool leave();

    private:
        Entry m_entry;
        int m_descriptor;
        bool m_isInside;
    };

    /** The closing of the socket by one thread. */
    class Closure {
    public:
        /** Waits while another thread closes the server. @param cell where the server keeps its socket */
        Closure(const void* server, void*& cell);

        /** Lets newcomers in. */
        ~Closure();

        Closure(const Closure&) = delete;
        Closure& operator=(const Closure&) = delete;

        /** @return whether there is a socket to close. */
        bool isNeeded() const { return m_isNeeded; }

        /** Sends visitors away and closes the socket when they are gone. */
        void closeSocket();

        /**
         * Sets the server's pointer to null and frees the cell. Another thread may take the server for closed
         * now and destroy it: nothing of it may be touched any more.
         */
        void releaseCell();

    private:
        Entry m_entry;
        void*& m_cell;
        bool m_isNeeded;
    };

    /** Waits while the server is being closed. */
    static void awaitClosure(const void* server);

private:
    static void enter(Entry& entry);
    static void remove(const Entry& entry);
    static Entry* find(const void* server, bool isClosure);
    static Entry* s_first;
};

} // namespace VornNet

#endif
