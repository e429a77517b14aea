// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_THROWNTEXT_H
#define VORNNOTIFY_THROWNTEXT_H

#include <VornNetExport.h>
#include <VornString.h>

namespace VornNet {

/** @return the exception that is being handled, of any type, for a log record; empty when there is no memory.
 */
VornString describeThrown();

} // namespace VornNet

#endif
