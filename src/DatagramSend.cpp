// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "DatagramSend.h"

#include "Descriptor.h"
#include "HostEntry.h"
#include "InternetAddress.h"
#include "RemoteHost.h"

#include <LogRecord.h>
#include <SystemCalls.h>

#include <cerrno>
#include <cstdint>
#include <new>

namespace VornNet {

namespace {

void askForName(in_addr address) {
    logRecord(VornLogging::cTraceCoreHigh, "VornUDPSocketConnection::transmit: using gethostbyaddr.");
    // Kept for what it does inside the resolver (its caches); length 8 as on the TCP transport.
    const std::uint64_t lookedUp = address.s_addr;
    HostEntry::byAddress(&lookedUp, sizeof lookedUp);
}

in_addr findTarget(const VornString& sRemoteName, bool bIdentify) {
    const RemoteHost host(sRemoteName);
    if (host.isName()) {
        const HostEntry entry = HostEntry::byName(host.text());
        // Kept: a name that nobody knows is sent to as 0.0.0.0, which Linux takes for the local host.
        return entry.isFound() ? entry.firstAddress() : in_addr{INADDR_ANY};
    }
    const in_addr address = host.address();
    if (bIdentify)
        askForName(address);
    return address;
}

} // namespace

bool DatagramSend::send(const void* data, int nSize) {
    Descriptor socket(System::socket(AF_INET, SOCK_DGRAM, 0));
    if (!socket.isOpen())
        return failed(cSocket, errno);
    const int bBroadcast = 1;
    if (System::setsockopt(socket.number(), SOL_SOCKET, SO_BROADCAST, &bBroadcast, sizeof bBroadcast) == -1) {
        failed(cOptions, errno);
        socket.release(); // kept: a failed transmission leaves its descriptor open
        return false;
    }
    sockaddr_in target{};
    try {
        target = makeSocketAddress(findTarget(m_sRemoteName, m_bIdentify), m_nPort);
    } catch (const std::bad_alloc&) { // GCOVR_EXCL_BR_LINE: nothing else is thrown
        // A failure is the result here, and no exception.
        return failed(cSend, ENOMEM);
    }
    // With nothing written the size is -1, a length that sendto() refuses.
    if (System::sendto(socket.number(), data, static_cast<size_t>(nSize), 0,
                       reinterpret_cast<const sockaddr*>(&target), sizeof target) == -1) {
        failed(cSend, errno);
        socket.release(); // kept, as above
        return false;
    }
    return true;
}

void DatagramSend::logFailure() const {
    switch (m_failed) { // GCOVR_EXCL_BR_LINE: there is no way past all steps
    case cNone:
        break;
    case cSocket:
        logRecord(VornLogging::cError,
                  "VornUDPSocketConnection::transmit: failed to create socket. (rc=", m_nError, ")");
        break;
    case cOptions:
        logRecord(VornLogging::cError,
                  "VornUDPSocketConnection::transmit: failed to set UDP options. (rc=", m_nError, ")");
        break;
    case cSend:
        logRecord(VornLogging::cError,
                  "VornUDPSocketConnection::transmit: failed to send data (rc:", m_nError, ") to ",
                  m_sRemoteName);
        break;
    }
}

bool DatagramSend::failed(Step step, int nError) {
    m_failed = step;
    m_nError = nError;
    return false;
}

} // namespace VornNet
