// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_DELIVERY_H
#define VORNNET_DELIVERY_H

#include "VornConnection.h"

namespace VornNet {

/**
 * A sink's service to one client, on the stack of the sink's thread, in a list that the sink's destructor can
 * look into: it can cut the client off from there.
 *
 * A descriptor's number may be given to a stranger as soon as it is closed. So connections close theirs
 * through closeCell(), which takes the number out of the cell under the lock that cutOff() holds.
 */
class Delivery {
public:
    /** @param owner identifies the sink. @param connection the client; a callback may let go of it */
    Delivery(const void* owner, VornConnection& connection);
    ~Delivery();

    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    /**
     * Ends the reading side of the client that the owner is serving, if there is one: a blocked read returns
     * as if the client had closed. What has arrived can still be read.
     */
    static void cutOff(const void* owner);

    /** To be called when a connection is destroyed: nothing looks at its cell any more. */
    static void forget(void* const& cell);

    /** Closes and frees a connection's descriptor cell and sets the pointer to null; null is allowed. */
    static void closeCell(void*& cell);

private:
    const void* m_owner;
    void* const* m_cell; // where the connection keeps its cell; null for one without, and when it is gone
    Delivery* m_next;
};

} // namespace VornNet

#endif
