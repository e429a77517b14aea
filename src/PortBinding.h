// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_PORTBINDING_H
#define VORNNET_PORTBINDING_H

#include "VornNetExport.h"

#include <netinet/in.h>

namespace VornNet {

class VornIPCServer;

/**
 * Binds a TCP or UDP server's socket. A port that is in use is reported at once, but for one on which this
 * server was open before: a program that the process is just starting may hold its closed socket until
 * execve(), so that port is tried again fifty times, once each millisecond.
 * @param nPort as the server is configured. @return 0, or the error number of bind(2)
 */
int bindPort(const VornIPCServer& server, int nPort, int socket, const sockaddr_in& address);

} // namespace VornNet

#endif
