// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_SERVICEREQUEST_H
#define EXAMPLES_SERVICEREQUEST_H

#include "FileEvent.h"
#include "TimeLimit.h"

#include <VornException.h>
#include <VornPipeConnection.h>

#include <chrono>

namespace Example {

using VornNet::VornException;
using VornNet::VornPipeConnection;
using VornNet::VornString;

/** Subscribes to the directory at the service, or unsubscribes. @throws VornException also when the
 * service refuses */
inline void ask(const char* sService, const VornString& sAddress, long hCallback,
                const VornString& sDirectory, const VornString& sPipe = cPipeName) {
    const TimeLimit limit(std::chrono::seconds(5));
    VornPipeConnection connection(sPipe);
    connection.setServiceName(sService);
    connection.transfer(sAddress);
    connection.transfer(hCallback);
    connection.transfer(sDirectory);
    // The acknowledgement token is the shorts 1 and 0, the error token 1 and -1.
    connection.receiveShort();
    if (connection.receiveShort() != 0)
        throw VornException("the service refuses " + sDirectory, 0);
}

} // namespace Example

#endif
