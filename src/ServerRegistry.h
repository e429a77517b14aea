// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_SERVERREGISTRY_H
#define VORNNET_SERVERREGISTRY_H

#include "VornNetExport.h"

#include <ForkHandlers.h>
#include <SharedField.h>

#include <mutex>
#include <thread>

namespace VornNet {

class VornIPCServer;

/**
 * Every server of the process, with what the layout of a server leaves no room for.
 *
 * In the child of a fork it lets go of the servers of sinks, whose threads are not there: otherwise the child
 * would keep their ports from the parent. Other servers stay open, for a program that serves each client in a
 * child; but they are shared with the parent from then on, so closing one there only closes descriptors.
 */
class ServerRegistry {
public:
    /** Closes the descriptors of a server that has some, and nothing else. */
    using LetGo = void (*)(VornIPCServer& server);

    struct Entry {
        void** handle; // where the server keeps what it holds while it is open
        LetGo letGo;
        const void* inherited; // what it held as this process was forked
        const void* lent;      // what it held as this process forked last
        int lastPort;          // where it was open before it was closed; -1 when it was not
        int opening;           // a socket that it does not hold yet; -1 when there is none
        std::thread::id opener;
        bool isSinks;
    };

    /** A socket that its server does not hold yet: the child of a fork does not keep that of a sink. */
    class Opening {
    public:
        Opening(const VornIPCServer& server, int descriptor);
        ~Opening();

        Opening(const Opening&) = delete;
        Opening& operator=(const Opening&) = delete;

    private:
        const VornIPCServer& m_server;
    };

    /** Guards the registry, and for every server the pointer to what it holds and the descriptors there. */
    static std::mutex& lock() { return s_lock; }

    static void add(VornIPCServer& server, void*& handle, LetGo letGo);
    static void remove(VornIPCServer& server);

    /** The server belongs to a sink. */
    static void markAsSinks(VornIPCServer& server);

    /** @return whether this process was forked from one that had the library. */
    static bool isInChild() { return readShared(s_isInChild); }

    /** @return the entry of a server that is there; under the lock. */
    static Entry& entryOf(const VornIPCServer& server);

    /** @return whether what the server holds was opened by the process that this one was forked from; under
     * the lock. */
    static bool isInherited(const VornIPCServer& server) { return isInChild() && isParents(entryOf(server)); }

    /** @return whether a child of this process may have what the server holds; under the lock. */
    static bool isLent(const VornIPCServer& server);

    /** @return whether the server was open on this port before. */
    static bool wasOpenOn(const VornIPCServer& server, int nPort);

private:
    static bool isParents(const Entry& entry);
    static void lend();
    static void startAfresh();

    static std::mutex s_lock;
    static bool s_isInChild; // atomic
    static const ForkHandlers s_forkHandlers;
};

} // namespace VornNet

#endif
