// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNPROXYDEPENDENTCONTAINER_H
#define VORNPROXYDEPENDENTCONTAINER_H

#include "VornNetExport.h"
#include "VornProxyDependent.h"
#include "VornProxyDependentIdentifier.h"

#include <VornCriticalSection.h>
#include <VornSmartPointer.h>
#include <VornString.h>

#include <map>

namespace VornNet {

/** Proxy dependents by callback address and id. */
typedef std::map<VornProxyDependentIdentifier, VornSmartPointer<VornProxyDependent>> ProxyDependentMap;

/**
 * The process-wide registry of the proxy dependents that a service keeps for its clients.
 *
 * The first getInstance() creates it. It lives until deleteInstance(), which the library calls when it is
 * unloaded. A client that subscribes twice with the same address and id is in it once. To walk the entries,
 * hold getlock() around a loop from 0 to size() - 1. To notify many, copy the pointers under the lock and
 * notify without it.
 *
 * Thread-safety: all operations except deleteInstance() may be called from any thread, under the lock
 * getlock(). An entry that is removed while a pointer to it exists lives as long as that pointer.
 * Blocking: on getlock(); size() never blocks.
 * Ownership: holds one reference to each proxy dependent.
 * Signals: none raised.
 * Errors: std::bad_alloc from getInstance() and add() only.
 */
class VORNNET_API VornProxyDependentContainer {
public:
    /** @return the one registry, created empty when there is none. */
    static VornProxyDependentContainer& getInstance();

    /** Destroys the registry and releases every entry; nothing happens when there is none. Nobody may use
     * it then. */
    static void deleteInstance();

    /** @return the lock of the entries; re-entrant for its holder. */
    VornCriticalSectionObject& getlock();

    /**
     * Keeps a proxy dependent, which must not be empty, in the place of one with the same address and id. The
     * id is taken as an int: an id of more than 32 bits is kept, and found, under its cut value only.
     */
    void add(VornSmartPointer<VornProxyDependent> spDependent);

    /** @return the proxy dependent with exactly that address and id, or an empty pointer. */
    VornSmartPointer<VornProxyDependent> lookup(const VornString& sRemoteName, long hDependent);

    /** Removes the proxy dependent with exactly that address and id; nothing happens when there is none. */
    void remove(const VornString& sRemoteName, long hDependent);

    /** Removes the entry at that place in the order of the keys; nothing happens outside 0 to size() - 1. */
    void remove(int index);

    /** @return the number of entries, without taking the lock. */
    int size();

    /** @return the entry at that place in the order of the keys, empty outside 0 to size() - 1. Linear in @p
     * index. */
    VornSmartPointer<VornProxyDependent> operator[](int index);

protected:
    VornCriticalSectionObject m_lock;            ///< guards the map
    ProxyDependentMap m_proxyDependentMap;       ///< the entries
    static VornProxyDependentContainer* m_pThis; ///< the one registry or null; atomic

private:
    VornProxyDependentContainer();
    ~VornProxyDependentContainer();
    VornProxyDependentContainer(const VornProxyDependentContainer&) = delete;
    VornProxyDependentContainer& operator=(const VornProxyDependentContainer&) = delete;

    VORNNET_LOCAL void letGo();
};

} // namespace VornNet

#endif
