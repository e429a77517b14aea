// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_TRACEDLIBRARY_H
#define VORNTOOL_TRACEDLIBRARY_H

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace VornTool {

/** A static probe's place in its file, and where its arguments stand, each as in "8@16(%rbx)". */
struct ProbeSite {
    std::uint64_t offset = 0;
    std::vector<std::string> arguments;
};

/**
 * A library that a running process has mapped.
 *
 * It is read through the process's own mapping, so also in a container and after the file was replaced.
 */
class TracedLibrary {
public:
    /**
     * Finds the mapping of the library whose file name begins with @p name.
     * @throws ToolError when there is no such process, it has no such library, or it may not be looked into
     */
    TracedLibrary(pid_t process, const std::string& name);

    /** @return a path to the mapped file, valid while the process maps it. */
    const std::string& path() const { return m_path; }

    /** @throws ToolError when the library was built without probes */
    ProbeSite probe(const std::string& provider, const std::string& name) const;

    /** @return the address of an exported object in the process. @throws ToolError when there is none */
    std::uint64_t addressOf(const std::string& symbol) const;

private:
    pid_t m_process;
    std::string m_name;
    std::string m_path;
    std::uint64_t m_start = 0; // where the file's beginning is mapped
};

} // namespace VornTool

#endif
