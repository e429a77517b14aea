// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_SERVICEMANAGER_H
#define VORNRELAY_SERVICEMANAGER_H

#include <chrono>
#include <string>

namespace VornRelay {

/** Tells the service manager something, such as "READY=1"; nothing happens where there is none. */
void tellServiceManager(const std::string& sState);

/** @return how often the service manager wants to hear that all is well; 0 when it does not. */
std::chrono::milliseconds watchdogInterval();

} // namespace VornRelay

#endif
