// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_REMOTEHOST_H
#define VORNNET_REMOTEHOST_H

#include "VornNetExport.h"

#include <VornString.h>

#include <array>

#include <netinet/in.h>

namespace VornNet {

/** A host as a client gives it: a name or a dotted address, cut to 8191 bytes. */
class RemoteHost {
public:
    explicit RemoteHost(const VornString& sHost);

    /** @return the text, terminated by a zero byte. */
    const char* text() const { return m_text.data(); }

    /** @return whether it is looked up: one letter anywhere makes a name. */
    bool isName() const;

    /** @return the address that a text without letters stands for; 255.255.255.255 if it stands for none. */
    in_addr address() const;

private:
    std::array<char, 8192> m_text;
};

} // namespace VornNet

#endif
