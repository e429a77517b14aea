// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_HOSTTEXT_H
#define VORNNET_HOSTTEXT_H

#include "VornNetExport.h"

#include <VornString.h>

#include <array>

#include <netinet/in.h>

namespace VornNet {

/** A host as a client names it: a host name or a dotted address, cut to the 8191 bytes that any name may
 * have. */
class HostText {
public:
    explicit HostText(const VornString& sHost);

    /** @return the text, terminated by a zero byte. */
    const char* text() const { return m_text.data(); }

    /** @return whether it is looked up: one letter anywhere makes a name. */
    bool isName() const;

    /** @return the address that a text without letters stands for; 255.255.255.255 when it stands for none.
     */
    in_addr address() const;

private:
    std::array<char, 8192> m_text;
};

/** @return an IPv4 socket address; of @p nPort, in host byte order, the low 16 bits count. */
sockaddr_in makeSocketAddress(in_addr address, int nPort);

/** @return the dotted text of an address. */
VornString dottedText(in_addr address);

} // namespace VornNet

#endif
