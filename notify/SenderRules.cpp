// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SenderRules.h"

#include "DottedAddress.h"

#include <SystemCalls.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include <arpa/inet.h>

namespace VornNet {

namespace {

constexpr int cAddressBits = 32;

/** @return the number of leading bits that the digits name; -1 when they name none. */
int parsePrefix(const VornString& sDigits) {
    const char* end = sDigits.data() + sDigits.size();
    int nBits = -1;
    const auto [rest, error] = std::from_chars(sDigits.data(), end, nBits);
    const bool isPlain = error == std::errc() && rest == end && sDigits.front() != '-' &&
                         (sDigits.size() == 1 || sDigits.front() != '0');
    return isPlain && nBits <= cAddressBits ? nBits : -1;
}

} // namespace

void SenderRules::allowUsers(const std::vector<unsigned int>& users) {
    m_users = users;
}

bool SenderRules::allowNetwork(const VornString& sNetwork) {
    const std::size_t nSlash = sNetwork.find('/');
    const std::optional<in_addr> address = parseDottedAddress(sNetwork.substr(0, nSlash));
    const int nBits = nSlash == VornString::npos ? cAddressBits : parsePrefix(sNetwork.substr(nSlash + 1));
    if (!address.has_value() || nBits == -1)
        return false;
    const in_addr_t mask = nBits == 0 ? 0 : ~in_addr_t{0} << (cAddressBits - nBits);
    m_networks.push_back({ntohl(address->s_addr) & mask, mask});
    return true;
}

bool SenderRules::admitsPeer(int fd) const {
    if (m_users.empty())
        return true;
    ucred peer{};
    socklen_t length = sizeof peer;
    return System::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           std::find(m_users.begin(), m_users.end(), peer.uid) != m_users.end();
}

bool SenderRules::admits(in_addr address) const {
    const in_addr_t number = ntohl(address.s_addr);
    return m_networks.empty() ||
           std::any_of(m_networks.begin(), m_networks.end(), [number](const Network& network) {
               return (number & network.mask) == network.address;
           });
}

} // namespace VornNet
