// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_DATAGRAMSEND_H
#define VORNNET_DATAGRAMSEND_H

#include "VornNetExport.h"

#include <VornString.h>

namespace VornNet {

/**
 * The sending of one datagram over a socket of its own. The record of a failure is written apart from it: a
 * server sends one in its close(), at a moment at which it must not call a log handler.
 */
class DatagramSend {
public:
    /** Sends nothing yet. @param sRemoteName host name or dotted address; must live as long as this */
    DatagramSend(const VornString& sRemoteName, int nPort, bool bIdentify)
        : m_sRemoteName(sRemoteName), m_nPort(nPort), m_bIdentify(bIdentify), m_failed(cNone), m_nError(0) {}

    /** @return whether the datagram was sent. */
    bool send(const void* data, int nSize);

    /** Writes a record of what failed, if something did. */
    void logFailure() const;

private:
    enum Step { cNone, cSocket, cOptions, cSend };

    bool failed(Step step, int nError);

    const VornString& m_sRemoteName;
    int m_nPort;
    bool m_bIdentify;
    Step m_failed;
    int m_nError;
};

} // namespace VornNet

#endif
