// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_SOCKETCELL_H
#define VORNNET_SOCKETCELL_H

#include "VornNetExport.h"

#include <ForkHandlers.h>
#include <IntrusiveList.h>

#include <thread>

namespace VornNet {

/**
 * The int on the heap in which a connection or server keeps its socket's descriptor; a null pointer to it
 * stands for no socket.
 *
 * A descriptor's number may be given to a stranger as soon as it is closed. So a connection changes its
 * pointer under the lock of this room, and another thread uses the number under it too. The connection's own
 * thread reads both without it. Servers have a lock of their own, see ServerGate.
 */
class SocketCell {
public:
    /** @return the descriptor; the cell must be there. */
    static int descriptorOf(const void* cell) { return *static_cast<const int*>(cell); }

    /** Puts a descriptor into a new cell. */
    static void open(void*& cell, int descriptor);

    /** Closes the socket, frees the cell and sets the pointer to null; null is allowed. */
    static void close(void*& cell);

    /** To be called when a connection is destroyed: nothing looks at its pointer any more. */
    static void forget(void*& cell);

    /**
     * While it exists, other threads can end the reads from a connection's socket. The child of a fork closes
     * the socket, since the thread that uses it is not there; but not if that thread itself has forked.
     */
    class Watch : public IntrusiveList<Watch>::Link {
    public:
        /** @param owner identifies the watch. @param cell where the connection keeps its cell, or null */
        Watch(const void* owner, void** cell);
        ~Watch();

        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        /** Shuts the reading side of the sockets down that the owner watches. */
        static void shutDownReading(const void* owner);

    private:
        friend class SocketCell;

        static void startAfresh();

        static const ForkHandlers s_forkHandlers;

        const void* m_owner;
        std::thread::id m_thread;
        void** m_cell; // null for a connection without one, and when the connection is gone
    };
};

} // namespace VornNet

#endif
