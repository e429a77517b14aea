// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_EVENTWRITER_H
#define VORNNOTIFY_EVENTWRITER_H

#include <VornConnection.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace VornNet {

/**
 * The connection that a publisher's writer puts an event's content into. It lives on the stack of publish(),
 * and so does the content unless it is long.
 *
 * What the writer must not do is remembered and told by content(): a writer may catch what it is thrown.
 */
class EventWriter : public VornConnection {
public:
    /** @param limit most bytes */
    explicit EventWriter(std::size_t limit);

    using VornConnection::transfer;

    void disconnect() override;
    long transfer(const char* buf, long bufLen, long* error) override;
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;
    bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;

    /** @return what was written. @throws VornException when it was too long, or the writer has read */
    std::string_view content() const;

protected:
    int establishImpl(VornString& sExceptionMessage) override;

private:
    bool makeRoom(std::size_t size);

    const std::size_t m_limit;
    char m_short[504];
    std::unique_ptr<char[]> m_long;
    char* m_bytes = m_short;
    std::size_t m_capacity = sizeof m_short;
    std::size_t m_size = 0;
    int m_error = 0;
};

} // namespace VornNet

#endif
