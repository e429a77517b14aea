// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_COMPOSINGCONNECTION_H
#define VORNNOTIFY_COMPOSINGCONNECTION_H

#include <VornBufferConnection.h>

#include <cstddef>
#include <string_view>

namespace VornNet {

/**
 * The connection that a proxy writes a notification's content to before anybody is connected.
 *
 * It refuses to be read: a proxy that waits for an answer would read its own words. And it does not drop what
 * it has no memory for, as a buffer connection does. What it has refused once is refused for good, also to a
 * proxy that catches the exception.
 */
class ComposingConnection : public VornBufferConnection {
public:
    /**
     * @param sRemoteName what the proxy sees of the peer
     * @param nLimit      most bytes that may be written
     */
    ComposingConnection(const VornString& sRemoteName, std::size_t nLimit);

    using VornBufferConnection::transfer;

    /** @throws VornException 90 above the limit, 12 without memory */
    long transfer(const char* buf, long bufLen, long* error) override;

    /** @throws VornException 95 */
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;

    /** @throws VornException 95 */
    bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;

    /** @return all that was written. @throws VornException what was thrown before, if anything was */
    std::string_view content() const;

private:
    [[noreturn]] void refuse(const char* text, int nCode);

    std::size_t m_nLimit;
    const char* m_refusal = nullptr;
    int m_nRefusalCode = 0;
};

} // namespace VornNet

#endif
