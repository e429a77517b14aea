// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SENDERRULES_H
#define VORNNOTIFY_SENDERRULES_H

#include <VornNetExport.h>
#include <VornString.h>

#include <vector>

#include <netinet/in.h>

namespace VornNet {

/** Says who may send to a sink: over pipes certain users, over the network certain networks. */
class SenderRules {
public:
    /** Allows these users, all when there are none. */
    void allowUsers(const std::vector<unsigned int>& users);

    /** Allows an address ("10.0.0.5") or a network ("10.0.0.0/8") and from then on no other. @return false
     * for what is neither */
    bool allowNetwork(const VornString& sNetwork);

    /** @return whether the process at the other end of that pipe may send. */
    bool admitsPeer(int fd) const;

    /** @return whether that address may send. */
    bool admits(in_addr address) const;

private:
    struct Network {
        in_addr_t address; // in host order, as the mask
        in_addr_t mask;
    };

    std::vector<unsigned int> m_users;
    std::vector<Network> m_networks;
};

} // namespace VornNet

#endif
