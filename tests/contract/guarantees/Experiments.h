// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef GUARANTEES_EXPERIMENTS_H
#define GUARANTEES_EXPERIMENTS_H

#include "NotificationPeer.h"
#include "Sender.h"

#include <string>
#include <vector>

/**
 * @file
 * The experiments behind docs/guarantees.md: one client, in this process, and one service in another.
 *
 * Each is made in a network of its own, where port 5023 is free and nothing is left over from before.
 */
namespace Guarantees {

using VornTest::Kind;

/** How the client's callback behaves. */
struct Callback {
    bool readsToEnd = true; ///< on to the end of the stream, as docs/guarantees.md recommends
    int milliseconds = 0;   ///< that it takes besides
    bool readsText = true;  ///< the text after the id as well
};

/** What sender and client have seen. */
struct Delivery {
    Outcome sender;
    std::vector<int> received; ///< ids in the order of arrival
    int broken = 0;            ///< notifications whose content could not be read
    std::string addressBefore;
    std::string addressAfter;

    /** Sent without an exception and never received. */
    int lostSilently() const;
};

/**
 * Lets a service carry the order out on a fresh sink, and waits until all that got through has been
 * received.
 */
Delivery deliver(Kind kind, Order order, const Callback& callback = {});

/** The same with a VornSteadySink. */
Delivery deliverToSteady(Kind kind, Order order);

/** Notifications to a sink whose callback never returns: how many were sent before one blocked. */
int sentToStuckSink(Kind kind, int most);

} // namespace Guarantees

#endif
