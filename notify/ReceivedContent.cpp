// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ReceivedContent.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace VornNet {

const std::size_t ReceivedContent::cLargest = INT_MAX;

ReceivedContent::ReceivedContent(unsigned int nAccessRights)
    : VornBufferConnection(nullptr, 0, VornString()), m_nAccessRights(nAccessRights) {}

void ReceivedContent::setSender(const VornString& sAddress, bool bLocal) {
    m_sRemoteName = sAddress;
    setLocalAccess(bLocal);
}

char* ReceivedContent::reserve(std::size_t nSize) {
    // Without memory the base has not even begun.
    m_nInIndex = std::max(m_nInIndex, 0);
    m_nOutIndex = std::max(m_nOutIndex, 0);
    const auto nUsed = static_cast<std::size_t>(m_nOutIndex);
    const auto nCapacity = static_cast<std::size_t>(m_nBufferSize);
    if (nSize > nCapacity - nUsed) {
        // The first piece is mostly all there is; what goes on growing is not copied at each step.
        const std::size_t nWanted = std::min(std::max(nUsed + nSize, nCapacity + nCapacity / 2), cLargest);
        void* block = std::realloc(m_pDataBuffer, nWanted);
        if (block == nullptr)
            return nullptr;
        m_pDataBuffer = static_cast<unsigned char*>(block);
        m_nBufferSize = static_cast<int>(nWanted);
    }
    return reinterpret_cast<char*>(m_pDataBuffer + nUsed);
}

void ReceivedContent::trim() {
    const std::size_t nUsed = std::max<std::size_t>(static_cast<std::size_t>(m_nOutIndex), 1);
    void* block = std::realloc(m_pDataBuffer, nUsed);
    if (block == nullptr)
        return;
    m_pDataBuffer = static_cast<unsigned char*>(block);
    m_nBufferSize = static_cast<int>(nUsed);
}

unsigned int ReceivedContent::getAccessRights() {
    return m_nAccessRights;
}

} // namespace VornNet
