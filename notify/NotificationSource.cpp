// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "NotificationSource.h"

#include <SystemCalls.h>

#include <cerrno>

namespace VornNet {

NotificationSource::Arrival NotificationSource::acceptFrom(int listener, IncomingNotification& next,
                                                           sockaddr_in* peer) {
    socklen_t length = sizeof *peer;
    const int number = System::accept4(listener, reinterpret_cast<sockaddr*>(peer),
                                       peer == nullptr ? nullptr : &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (number == -1)
        return errno == EAGAIN ? Arrival::nothing : Arrival::failed;
    next.attach(OwnedDescriptor::opened(number));
    return Arrival::accepted;
}

} // namespace VornNet
