// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_EVENTREADER_H
#define VORNNOTIFY_EVENTREADER_H

#include <VornConnection.h>

#include <string_view>

namespace VornNet {

/**
 * The connection that an event handler reads the content from, where it lies in the memory of the subscriber.
 * Reading beyond the end fails as over a VornBufferConnection; what is written goes nowhere.
 */
class EventReader : public VornConnection {
public:
    explicit EventReader(std::string_view content);

    using VornConnection::transfer;

    void disconnect() override;
    long transfer(const char* buf, long bufLen, long* error) override;
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;
    bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;

protected:
    int establishImpl(VornString& sExceptionMessage) override;

private:
    std::string_view m_content; // what is not read yet
};

} // namespace VornNet

#endif
