// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PIPELISTENER_H
#define VORNNOTIFY_PIPELISTENER_H

#include "OwnedDescriptor.h"

#include <VornNetExport.h>
#include <VornString.h>

#include <optional>

#include <sys/types.h>

namespace VornNet {

/**
 * The listening end of a local pipe, with its file in the pipe directory.
 *
 * Its file is never taken from a living server: bind() is called without unlink() before. Destroying it
 * closes the socket; the file is removed by removeFile() only.
 */
class PipeListener {
public:
    /** What stands at the pipe's path. */
    enum class File {
        own,     ///< the file that this listener has made
        gone,    ///< nothing
        foreign, ///< something else
        unknown  ///< it cannot be looked at
    };

    /** @return whether a pipe can have that name. */
    static bool isName(const VornString& sName);

    /** @return whether a server has the pipe of that name, also one that does not listen yet; and when that
     * cannot be found out. Nobody is connected to, so none is disturbed. */
    static bool isAlive(const VornString& sName);

    /**
     * Opens a pipe under a name that nobody has: "quorax", the process id, '-' and random digits.
     * @param group who shall have access besides the owner; none: the group that the system gives files there
     * @throws std::system_error
     */
    static PipeListener openUnique(std::optional<gid_t> group);

    /**
     * Opens a pipe under a given name. A dead server's file is replaced.
     * @throws std::system_error, 98 (EADDRINUSE) when the name is in use
     */
    static PipeListener openNamed(const VornString& sName, std::optional<gid_t> group);

    /** Opens a pipe under a name if nothing stands there. @throws std::system_error, 98 (EADDRINUSE) if it
     * does */
    static PipeListener openFree(const VornString& sName, std::optional<gid_t> group);

    int descriptor() const { return m_socket.number(); }

    const VornString& name() const { return m_sName; }

    /** Looks at what stands at the pipe's path now. */
    File look() const;

    /** Removes the pipe's file if it is the own one. */
    void removeFile() const;

private:
    PipeListener(OwnedDescriptor&& socket, const VornString& sName, const VornString& sPath);

    void finish(std::optional<gid_t> group);

    OwnedDescriptor m_socket;
    VornString m_sName;
    VornString m_sPath;
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

} // namespace VornNet

#endif
