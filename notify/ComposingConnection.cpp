// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ComposingConnection.h"

#include <VornException.h>

#include <cerrno>

namespace VornNet {

namespace {

constexpr const char* cMustNotRead = "VornDispatcher::post: addContent() must not read.";
constexpr const char* cTooLong = "VornDispatcher::post: notification too long.";
constexpr const char* cWriteFailed = "VornConnection::put: transfer failed.";

} // namespace

ComposingConnection::ComposingConnection(const VornString& sRemoteName, std::size_t nLimit)
    : m_nLimit(nLimit) {
    m_sRemoteName = sRemoteName;
}

long ComposingConnection::transfer(const char* buf, long bufLen, long* error) {
    const std::size_t nBefore = size() > 0 ? static_cast<std::size_t>(size()) : 0;
    if (bufLen > 0 && static_cast<std::size_t>(bufLen) > m_nLimit - nBefore)
        refuse(cTooLong, EMSGSIZE);
    const long nWritten = VornBufferConnection::transfer(buf, bufLen, error);
    if (nWritten < bufLen)
        refuse(cWriteFailed, ENOMEM);
    return nWritten;
}

long ComposingConnection::receive(char* /*bufPtr*/, long /*toRead*/, long* /*error*/, bool /*bWaitForAll*/) {
    refuse(cMustNotRead, EOPNOTSUPP);
}

bool ComposingConnection::peekBytes(void* /*pBuffer*/, int& /*nSize*/, int& /*nErrorCode*/) {
    refuse(cMustNotRead, EOPNOTSUPP);
}

std::string_view ComposingConnection::content() const {
    if (m_refusal != nullptr)
        throw VornException(m_refusal, m_nRefusalCode);
    return {static_cast<const char*>(buf()), static_cast<std::size_t>(size())};
}

void ComposingConnection::refuse(const char* text, int nCode) {
    if (m_refusal == nullptr) {
        m_refusal = text;
        m_nRefusalCode = nCode;
    }
    throw VornException(m_refusal, m_nRefusalCode);
}

} // namespace VornNet
