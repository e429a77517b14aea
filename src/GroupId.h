// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNET_GROUPID_H
#define VORNNET_GROUPID_H

#include "VornNetExport.h"

#include <VornString.h>

#include <optional>

#include <sys/types.h>

namespace VornNet {

/** @return the id of the group of that name, if there is one. */
std::optional<gid_t> findGroup(const VornString& sName);

} // namespace VornNet

#endif
