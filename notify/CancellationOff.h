// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_CANCELLATIONOFF_H
#define VORNNOTIFY_CANCELLATIONOFF_H

#include <VornNetExport.h>

#include <pthread.h>

namespace VornNet {

/** Puts the cancellation of the calling thread off to the end of a block that has to be gone through. */
class CancellationOff {
public:
    CancellationOff() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_nPrevious); }

    ~CancellationOff() { ::pthread_setcancelstate(m_nPrevious, nullptr); }

    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

private:
    int m_nPrevious = PTHREAD_CANCEL_ENABLE;
};

} // namespace VornNet

#endif
