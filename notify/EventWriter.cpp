// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "EventWriter.h"

#include <VornException.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace VornNet {

namespace {

constexpr const char* cTooLong = "VornPublisher::publish: event too long.";
constexpr const char* cMustNotRead = "VornPublisher::publish: the writer must not read.";
constexpr const char* cWriteFailed = "VornConnection::put: transfer failed.";

} // namespace

EventWriter::EventWriter(std::size_t limit) : m_limit(limit) {
    m_bConnected = true;
}

void EventWriter::disconnect() {}

long EventWriter::transfer(const char* buf, long bufLen, long* error) {
    const std::size_t size = static_cast<std::size_t>(std::max(bufLen, 0L));
    *error = 0;
    if (m_error != 0 || (size > m_capacity - m_size && !makeRoom(size))) {
        // Too much is no failed write: the writer goes on, into nothing, and publish() tells.
        *error = m_error == ENOMEM ? ENOMEM : 0;
        return *error == 0 ? bufLen : 0;
    }
    if (size > 0)
        std::memcpy(m_bytes + m_size, buf, size);
    m_size += size;
    return bufLen;
}

long EventWriter::receive(char* /*bufPtr*/, long /*toRead*/, long* /*error*/, bool /*bWaitForAll*/) {
    m_error = EOPNOTSUPP;
    throw VornException(cMustNotRead, EOPNOTSUPP);
}

bool EventWriter::peekBytes(void* /*pBuffer*/, int& /*nSize*/, int& /*nErrorCode*/) {
    m_error = EOPNOTSUPP;
    throw VornException(cMustNotRead, EOPNOTSUPP);
}

std::string_view EventWriter::content() const {
    if (m_size > m_limit || m_error == EMSGSIZE)
        throw VornException(cTooLong, EMSGSIZE);
    if (m_error == EOPNOTSUPP)
        throw VornException(cMustNotRead, m_error);
    if (m_error != 0)
        throw VornException(cWriteFailed, m_error);
    return {m_bytes, m_size};
}

int EventWriter::establishImpl(VornString& /*sExceptionMessage*/) {
    return 0;
}

bool EventWriter::makeRoom(std::size_t size) {
    if (size > m_limit || m_size > m_limit - size) {
        m_error = EMSGSIZE;
        return false;
    }
    const std::size_t capacity = std::max(m_size + size, std::min(2 * m_capacity, m_limit));
    std::unique_ptr<char[]> larger(new (std::nothrow) char[capacity]);
    if (larger == nullptr) {
        m_error = ENOMEM;
        return false;
    }
    std::memcpy(larger.get(), m_bytes, m_size);
    m_long = std::move(larger);
    m_bytes = m_long.get();
    m_capacity = capacity;
    return true;
}

} // namespace VornNet
