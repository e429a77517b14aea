// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_DESCRIPTOR_H
#define VORNNET_DESCRIPTOR_H

#include "VornNetExport.h"

#include <Cancellation.h>
#include <StandardStreams.h>
#include <SystemCalls.h>

namespace VornNet {

/**
 * Closes a descriptor at the end of a block unless it was handed on.
 *
 * Every descriptor that the library opens passes through here and becomes close-on-exec: a child process
 * which inherits a listening socket would keep its port. It is a call of its own because the calls that open
 * keep their plain arguments. One that was opened with the number of a standard stream gets another number.
 */
class Descriptor {
public:
    explicit Descriptor(int number) : m_number(keepOffStandardStreams(number)) {
        if (m_number != -1)
            System::fcntl(m_number, F_SETFD, FD_CLOEXEC);
    }

    ~Descriptor() {
        if (m_number == -1)
            return;
        const CancellationOff noCancellation;
        System::close(m_number);
    }

    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int number() const { return m_number; }

    bool isOpen() const { return m_number != -1; }

    /** Hands the descriptor on: it is the caller's from now on. */
    int release() {
        const int number = m_number;
        m_number = -1;
        return number;
    }

private:
    int m_number;
};

} // namespace VornNet

#endif
