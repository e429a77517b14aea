// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_HISTORYBLOCK_H
#define VORNNOTIFY_HISTORYBLOCK_H

#include "OwnedDescriptor.h"

#include <VornNetExport.h>
#include <VornString.h>

#include <cstddef>
#include <cstdint>

namespace VornNet {

/** What stands before the frames of a history, in a file as in memory. Host order: a file stays on its host.
 */
struct HistoryHeader {
    char magic[8];
    char bootId[40];        ///< of the system that has written last
    std::uint64_t isClosed; ///< 1: everything has reached the disk
    std::uint64_t capacity; ///< bytes for frames
    std::uint64_t history;  ///< the history's number; 0: none has begun
    std::uint64_t oldest;   ///< place of the oldest frame; places count the bytes ever passed
    std::uint64_t end;      ///< place of the next frame
};

/**
 * The memory of a history: a mapping of the process's own, or of a file that outlives it.
 *
 * What a process has written into a shared mapping is the kernel's, and is in the file however the process
 * ends. The machine's end is another matter: a file of an earlier boot is sound only when it was closed.
 */
class HistoryBlock {
public:
    /** Memory that ends with the process. @throws std::system_error */
    explicit HistoryBlock(std::size_t capacity);

    /**
     * Opens a file, or creates it, and locks it. The room on the disk is taken at once, so that a full disk
     * is an error here and not a SIGBUS later. @throws std::system_error, 11 when somebody else has the lock
     */
    HistoryBlock(const VornString& sPath, std::size_t capacity);

    /** Unmaps; a file is closed and unlocked as it is. */
    ~HistoryBlock();

    HistoryBlock(const HistoryBlock&) = delete;
    HistoryBlock& operator=(const HistoryBlock&) = delete;

    HistoryHeader& header() const { return *static_cast<HistoryHeader*>(m_mapping); }

    /** @return room for @p capacity bytes of frames. */
    char* frames() const { return static_cast<char*>(m_mapping) + cHeaderSize; }

    /** @return whether the header is that of a history which may be gone on with, as far as it tells. */
    bool isUsable() const;

    /** Begins a history of that number, which is empty. */
    void begin(std::uint64_t history);

    /** Says that this system writes from now on, which reaches the disk before anything else does. */
    void own();

    /** Brings everything to the disk, says so there, and lets go of the file. */
    void close();

private:
    static constexpr std::size_t cHeaderSize = 4096;

    void prepareFile(std::size_t size);
    void map(std::size_t size, int flags);

    OwnedDescriptor m_file;
    std::size_t m_capacity;
    void* m_mapping = nullptr;
};

} // namespace VornNet

#endif
