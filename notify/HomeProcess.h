// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_HOMEPROCESS_H
#define VORNNOTIFY_HOMEPROCESS_H

#include <SystemCalls.h>
#include <VornNetExport.h>

namespace VornNet {

/**
 * The process that an object was made in. The child of a fork has a copy of the object and none of its
 * threads; what the copy holds outside the process is the parent's.
 */
class HomeProcess {
public:
    /** @return whether this is another process, which was forked from it. */
    bool isForked() const { return System::getpid() != m_id; }

private:
    const pid_t m_id = System::getpid();
};

} // namespace VornNet

#endif
