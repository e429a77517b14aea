// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_RECEIVEDCONTENT_H
#define VORNNOTIFY_RECEIVEDCONTENT_H

#include <VornBufferConnection.h>

#include <cstddef>

namespace VornNet {

/**
 * A notification's content without its handle, gathered piece by piece and then handed to the callback.
 *
 * What arrives is read straight into the connection's block, so that a large content is neither copied nor in
 * memory twice.
 */
class ReceivedContent : public VornBufferConnection {
public:
    /** The most that a buffer connection can hold. */
    static const std::size_t cLargest;

    /** @param nAccessRights what getAccessRights() reports */
    explicit ReceivedContent(unsigned int nAccessRights);

    /** Names the sender, before anything is read. */
    void setSender(const VornString& sAddress, bool bLocal);

    /**
     * Makes room for @p nSize bytes more, at most cLargest in all.
     * @return where they go, or null when there is no memory
     */
    char* reserve(std::size_t nSize);

    /** Takes over @p nSize bytes that have been written there. */
    void add(std::size_t nSize) { m_nOutIndex += static_cast<int>(nSize); }

    /** Gives back the memory that has not been used. */
    void trim();

    unsigned int getAccessRights() override;

private:
    unsigned int m_nAccessRights;
};

} // namespace VornNet

#endif
