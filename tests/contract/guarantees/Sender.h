// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef GUARANTEES_SENDER_H
#define GUARANTEES_SENDER_H

#include <map>
#include <string>
#include <vector>

/**
 * @file
 * A service in a process of its own, which notifies one client.
 */
namespace Guarantees {

/** What a sender is told to do. */
struct Order {
    std::string address;
    int count = 1;             ///< how many notifications; their ids are 0, 1, 2, ...
    int pauseMicros = 0;       ///< between two of them
    bool holdsForPeer = false; ///< end the connection only when the receiver has ended its side
    bool ignoresSigpipe = true;
    int mostTries = 1;         ///< of one notification, as long as it is refused; 20 ms between two
    int payload = 0;           ///< bytes of the text that follows the id
    int patience = 0;          ///< seconds after which a notification is broken off (code 4); 0 for never
    bool byDispatcher = false; ///< instead of remoteNotify(); refused is what was not delivered or sent
};

/** What became of it. */
struct Outcome {
    std::vector<int> sent;      ///< ids of those that were sent without an exception
    std::map<int, int> refused; ///< how often each error code came
    int retries = 0;
    int signal = 0; ///< that ended the process; 0 if it came to its end
    double seconds = 0;
};

/** Carries the order out in another process and waits for its end. */
Outcome sendFromOtherProcess(const Order& order);

} // namespace Guarantees

#endif
