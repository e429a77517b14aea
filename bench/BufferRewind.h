// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBENCH_BUFFERREWIND_H
#define VORNBENCH_BUFFERREWIND_H

#include <VornBufferConnection.h>

namespace Bench {

/**
 * Sets a buffer connection's positions back, so that one block serves a whole measurement and neither its
 * allocation nor the filling is measured. It reaches into an object of exactly the library's class: one of a
 * derived class would be served in another way.
 */
class BufferRewind : public VornNet::VornBufferConnection {
public:
    static void writing(VornNet::VornBufferConnection& connection) {
        connection.*(&BufferRewind::m_nInIndex) = 0;
        connection.*(&BufferRewind::m_nOutIndex) = 0;
    }

    static void reading(VornNet::VornBufferConnection& connection) {
        connection.*(&BufferRewind::m_nInIndex) = 0;
    }
};

} // namespace Bench

#endif
