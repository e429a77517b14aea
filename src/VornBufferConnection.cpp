// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornBufferConnection.h"

#include <VornException.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace VornNet {

namespace {

constexpr const char* cWriteFailed = "VornConnection::put: transfer failed.";

} // namespace

VornBufferConnection::VornBufferConnection()
    : VornConnection(true, VornString()), m_pDataBuffer(nullptr), m_nBufferSize(0), m_nInIndex(-1),
      m_nOutIndex(-1) {}

VornBufferConnection::VornBufferConnection(void* pDataBuffer, int nSize, const VornString& sClientName)
    : VornConnection(false, sClientName), m_pDataBuffer(nullptr), m_nBufferSize(0), m_nInIndex(-1),
      m_nOutIndex(-1) {
    long nError = 0;
    VornBufferConnection::transfer(static_cast<const char*>(pDataBuffer), nSize, &nError);
    if (nError != 0) // GCOVR_EXCL_BR_LINE: the transfer into a block reports no error
        throw VornException(cWriteFailed, static_cast<int>(nError)); // GCOVR_EXCL_LINE: as above
}

VornBufferConnection::~VornBufferConnection() {
    std::free(m_pDataBuffer);
}

void VornBufferConnection::disconnect() {
    if (m_bConnected)
        cleanup();
}

long VornBufferConnection::transfer(const char* buf, long bufLen, long* error) {
    *error = 0;
    if (bufLen < 0)
        return 0;
    if (m_nOutIndex == -1 || bufLen > m_nBufferSize - m_nOutIndex) {
        if (!grow(bufLen))
            return 0;
    }
    if (bufLen > 0)
        std::memcpy(m_pDataBuffer + m_nOutIndex, buf, static_cast<std::size_t>(bufLen));
    m_nOutIndex += static_cast<int>(bufLen);
    return bufLen;
}

long VornBufferConnection::receive(char* bufPtr, long toRead, long* error, bool /*bWaitForAll*/) {
    *error = 0;
    if (m_nInIndex == -1 || toRead <= 0)
        return 0;
    const long count = std::min<long>(toRead, m_nOutIndex - m_nInIndex);
    if (count > 0)
        std::memcpy(bufPtr, m_pDataBuffer + m_nInIndex, static_cast<std::size_t>(count));
    m_nInIndex += static_cast<int>(count);
    return count;
}

bool VornBufferConnection::peekBytes(void* pBuffer, int& nSize, int& nErrorCode) {
    nErrorCode = 0;
    if (m_nInIndex == -1)
        return false;
    // Kept: the size is not cut to what was copied, so a line reader looks at its whole buffer.
    const int count = std::min(nSize, m_nOutIndex - m_nInIndex);
    if (count > 0)
        std::memcpy(pBuffer, m_pDataBuffer + m_nInIndex, static_cast<std::size_t>(count));
    return true;
}

const void* VornBufferConnection::buf() const {
    return m_pDataBuffer;
}

int VornBufferConnection::size() const {
    return m_nOutIndex;
}

int VornBufferConnection::establishImpl(VornString& /*sExceptionMessage*/) {
    if (!m_bConnected) {
        m_bConnected = true;
        initialize();
    }
    return 0;
}

bool VornBufferConnection::grow(long nRequest) {
    constexpr long cStep = 8192;
    // The step follows from the request alone, also where less would do.
    const long nStep = nRequest > INT_MAX ? nRequest : (nRequest + cStep - 1) / cStep * cStep;
    if (nStep > INT_MAX - m_nBufferSize)
        return false;
    void* block = std::realloc(m_pDataBuffer, static_cast<std::size_t>(m_nBufferSize + nStep));
    if (block == nullptr)
        return false;
    m_pDataBuffer = static_cast<unsigned char*>(block);
    m_nBufferSize += static_cast<int>(nStep);
    if (m_nOutIndex == -1) {
        m_nInIndex = 0;
        m_nOutIndex = 0;
    }
    return true;
}

} // namespace VornNet
