// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNBUFFERCONNECTION_H
#define VORNBUFFERCONNECTION_H

#include "VornConnection.h"

namespace VornNet {

/**
 * A connection whose transport is a block of memory: what is written is appended, what is read is taken from
 * the front in the same order.
 *
 * Created empty, it composes a message (VornUDPSocketConnection sends the block as one datagram); made from
 * bytes it decodes one (VornUDPServerSocket hands out each datagram so). Reading and writing may alternate.
 * Read space is not used again and the block never shrinks; disconnect() keeps both. The capacity grows by
 * the size of the write that does not fit, rounded up to the next 8192 bytes, and realloc(3) may move the
 * block at each step. It is meant for messages of some KiB; what is larger is written in few large pieces, or
 * put() on a stream connection.
 *
 * Thread-safety: none; one thread at a time.
 * Blocking: never.
 * Ownership: the block belongs to the connection.
 * Signals: none raised.
 * Errors: as VornConnection. A write for which there is no memory is dropped without an error; reading past
 * the end is "VornConnection::get: failed read" with code 0. Nothing is logged.
 */
class VORNNET_API VornBufferConnection : public VornConnection {
public:
    /** Makes an empty connection to write into. */
    VornBufferConnection();

    /**
     * Makes a connection to read a message from.
     * @param pDataBuffer the message, which is copied; the caller keeps it
     * @param nSize       its size in bytes
     * @param sClientName becomes the remote name
     */
    VornBufferConnection(void* pDataBuffer, int nSize, const VornString& sClientName);

    /** Frees the block. */
    ~VornBufferConnection() override;

    using VornConnection::transfer;

    /** Marks the connection as unconnected; data and positions stay, and reading goes on where it stood. */
    void disconnect() override;

    /** Appends @p bufLen bytes. @return their number, or 0 with error 0 when there is no memory for them. */
    long transfer(const char* buf, long bufLen, long* error) override;

    /** Takes up to @p toRead bytes. @return their number, less when the data ends; it never waits for more.
     */
    long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) override;

    /**
     * Copies up to @p nSize unread bytes. @p nSize is left as it is, also when there were fewer.
     * @return true unless nothing has ever been written
     */
    bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) override;

    /** @return the start of the block, null before the first write; valid until the next one. */
    const void* buf() const;

    /** @return the number of bytes ever written, not the capacity; -1 before the first write. */
    int size() const;

protected:
    int establishImpl(VornString& sExceptionMessage) override;

    unsigned char* m_pDataBuffer; ///< the block, from realloc(3)
    int m_nBufferSize;            ///< its capacity in bytes
    int m_nInIndex;               ///< where reading goes on; -1 before the first write
    int m_nOutIndex;              ///< where writing goes on; -1 before the first write

private:
    VornBufferConnection(const VornBufferConnection&) = delete;
    VornBufferConnection& operator=(const VornBufferConnection&) = delete;

    friend class BufferAccess;

    VORNNET_LOCAL bool grow(long nRequest);
};

} // namespace VornNet

#endif
