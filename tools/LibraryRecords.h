// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_LIBRARYRECORDS_H
#define VORNTOOL_LIBRARYRECORDS_H

#include <functional>
#include <string>

namespace VornTool {

/**
 * Takes the library's log records while it exists: those up to the operator's level go to standard error, and
 * those that tell of failures, which are told in no other way, to the subcommand.
 */
class LibraryRecords {
public:
    using FailureHandler = std::function<void(const std::string& text)>;

    /**
     * @param level     records up to this level are written
     * @param onFailure called, by any thread, with each record of level 1, whatever @p level is
     */
    explicit LibraryRecords(int level, const FailureHandler& onFailure = nullptr);
    ~LibraryRecords();
    LibraryRecords(const LibraryRecords&) = delete;
    LibraryRecords& operator=(const LibraryRecords&) = delete;
};

} // namespace VornTool

#endif
