// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LibraryRecords.h"

#include "Output.h"

#include <VornLogging.h>

#include <algorithm>

namespace VornTool {

using VornSupport::VornLogging;

LibraryRecords::LibraryRecords(int level, const FailureHandler& onFailure) {
    VornLogging::setRecordHandler([level, onFailure](int recordLevel, const std::string& text) {
        if (recordLevel <= level)
            Output::diagnostic("[" + std::to_string(recordLevel) + "] " + printable(text));
        if (recordLevel == VornLogging::cError && onFailure)
            onFailure(text);
    });
    const int needed =
        onFailure ? static_cast<int>(VornLogging::cError) : static_cast<int>(VornLogging::cOff);
    VornLogging::getInstance().setLogLevel(std::max(level, needed));
}

LibraryRecords::~LibraryRecords() {
    VornLogging::getInstance().setLogLevel(VornLogging::cOff);
    VornLogging::setRecordHandler(nullptr);
}

} // namespace VornTool
