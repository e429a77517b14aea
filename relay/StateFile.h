// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_STATEFILE_H
#define VORNRELAY_STATEFILE_H

#include <cstdint>
#include <string>

namespace VornRelay {

/** Throws std::system_error with errno; @p sWhat says what has failed. */
[[noreturn]] void failWith(const std::string& sWhat);

/** @return the file's content, empty if there is no file. @throws std::system_error */
std::string readState(const std::string& sPath);

/** Replaces the file's content: after a power cut it is the old or the new one, never a part.
 * @throws std::system_error */
void replaceState(const std::string& sPath, const std::string& sContent);

/**
 * @return the number of this start, which is higher than those of all starts before: the milliseconds since
 * 1970, unless the clock was put back. It is on disk when this returns. @throws std::system_error
 */
std::uint64_t nextBootNumber(const std::string& sPath);

} // namespace VornRelay

#endif
