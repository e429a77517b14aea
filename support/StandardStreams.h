// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_STANDARDSTREAMS_H
#define VORNSUPPORT_STANDARDSTREAMS_H

#include "Cancellation.h"

namespace VornSupport {

/**
 * Moves a descriptor that was just opened above those of the standard streams: where one of them was closed,
 * the system hands out its number, and what anybody prints would go to the peer. Not installed.
 * @return the number from now on; the old one where there is none above. -1 for -1, with errno as it was
 */
inline int keepOffStandardStreams(int number) {
    if (number == -1 || number > STDERR_FILENO)
        return number;
    const int moved = System::fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved == -1)
        return number;
    const CancellationOff noCancellation;
    System::close(number);
    return moved;
}

} // namespace VornSupport

#endif
