// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_PIPEFILES_H
#define VORNTOOL_PIPEFILES_H

#include "Processes.h"
#include "Sockets.h"

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace VornTool {

/** What is to be said of an entry of the pipe directory, or of a socket that should have one. */
enum class PipeState {
    Listening, ///< somebody listens
    Bound,     ///< a socket is bound to it that does not listen
    Hidden,    ///< a socket is bound to it that cannot be seen from here, as in another container
    Contested, ///< several sockets listen under the name, and the kernel does not tell which one has it
    Stolen,    ///< a socket that still listens, but whose path leads to another one now
    Unlinked,  ///< a socket that still listens, but whose file is gone
    Dead,      ///< nobody has it, and nobody ever will
    NoSocket,  ///< a file of another kind
    Unknown    ///< this user may not find out
};

struct PipeFile {
    std::string name; ///< without the directory
    PipeState state = PipeState::Unknown;
    std::optional<Socket::Queue> queue;
    std::vector<Process> processes; ///< who holds the socket, as far as can be seen

    /** The file's, unless the file is gone. */
    struct Ownership {
        mode_t mode = 0;
        std::string owner;
        std::string group;
    };

    std::optional<Ownership> ownership;

    bool isFull() const { return queue && queue->isFull(); }
};

/** What there is in the pipe directory, by name. @throws ToolError when it cannot be read */
std::vector<PipeFile> listPipeFiles();

/** @return the path of a pipe. */
std::string pipePath(const std::string& name);

/**
 * Removes a socket file if nobody has the socket any more.
 * @return an errno value: 0 when it was removed, EADDRINUSE when somebody has it
 */
int removeIfDead(const std::string& path);

/** @return the word for the state, as in the tables and in JSON. */
std::string nameOf(PipeState state);

} // namespace VornTool

#endif
