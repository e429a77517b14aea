// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_POSITIONFILE_H
#define VORNNOTIFY_POSITIONFILE_H

#include "OwnedDescriptor.h"
#include "VornPosition.h"

namespace VornNet {

/**
 * A file that keeps a subscriber's position: its text and a line end, always of the same length, so that each
 * note is one write in place. It outlives the process, not the machine.
 */
class PositionFile {
public:
    /**
     * Opens the file, or creates it, and locks it.
     * @throws std::system_error, with 11 when somebody else has the lock, and 22 when it holds no position
     */
    explicit PositionFile(const VornString& sPath);

    /** @return what it held when it was opened; nowhere for an empty file. */
    const VornPosition& position() const { return m_position; }

    /** Notes a position. When that fails, the next note does its work. */
    void note(const VornPosition& position) const;

private:
    OwnedDescriptor m_file;
    VornPosition m_position;
};

} // namespace VornNet

#endif
