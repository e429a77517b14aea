// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSTEADYSINK_H
#define VORNSTEADYSINK_H

#include "VornNotifyExport.h"

#include <VornCallbackContainer.h>
#include <VornString.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace VornNet {

/**
 * The client's end of notifications that are to arrive: a server that stays open, and calls the same
 * callbacks as VornLibraryCallbackSink.
 *
 * It is used as that one is: make it, take ids from its container, add callbacks, pass getCallbackAddress()
 * and an id to the service. Senders are VornDispatcher or any VornProxyDependent. It differs in this:
 * - It listens from construction to destruction. Notifications that come without pause, from many senders, or
 *   while a callback runs, wait; none is thrown away.
 * - A notification is read to the end of its stream before its callback is called. The callback gets a
 *   connection in memory (VornBufferConnection) that holds the content, without the handle; its remote name
 *   is the sender's dotted address (empty over a pipe), its local access and its access rights are as from
 *   VornLibraryCallbackSink. What it leaves unread does no harm, it may keep the connection, and nothing that
 *   it writes is sent.
 * - Whoever connects and is silent, sends too little, resets, or sends an empty datagram costs nothing but
 *   one of the connections until the read limit.
 * - The address is the sink's own: several sinks in one process, and in processes of equal ids, do not meet.
 *   It changes only when a pipe's file is taken away by somebody else, see Options::onAddressChange.
 * - What a callback throws, of any type, is logged at level 1 and counted, and the sink goes on.
 * - The constructor throws where nothing can be made, and never waits.
 *
 * Callbacks are called one at a time, on one thread of the sink, with the container locked, as
 * VornLibraryCallbackSink does; so a callback that has been removed is not called any more. While one runs,
 * the sink goes on accepting and reading up to its limits, and then leaves the rest to the kernel's queue.
 * Who wants callbacks side by side makes several sinks.
 *
 * Order: of one dispatcher's as they were posted; of one thread of a service that calls remoteNotify() as it
 * was called, within one host; over a network that loses packets, later ones of these may overtake.
 *
 * A sender sees the end of its stream when the callback has returned (or thrown), and a reset in every other
 * case: when the process ends meanwhile, when the id is not registered, when the notification is too long or
 * not complete in time, when the sender is not admitted. Only over a pipe it sees the end, too, when less
 * than a handle has come and has been read: the system resets a pipe only while bytes are unread.
 *
 * Thread-safety: every operation may be called from any thread; the destructor by the owner, never from a
 *   callback: that ends the process. A process that forks must not use the sink in the child.
 * Blocking: only the destructor, for a running callback or address handler. What has been read and waits for
 *   its callback is then given back: its sender sees a reset.
 * Ownership: sockets (close-on-exec), threads and the callback container belong to the sink; the pipe's file
 *   is removed by the destructor if it is still the sink's own.
 * Signals: none raised; its threads have all signals blocked.
 * Errors: VornException from the constructor, see there. Later failures are retried: without descriptors (24)
 *   the sink goes on with those it has, and takes new connections when there are descriptors again, without
 *   using a processor meanwhile.
 */
class VORNNOTIFY_API VornSteadySink {
public:
    /** The transport. */
    enum class Kind {
        byEnvironment, ///< as VornLibraryCallbackSink: QUORAX_CALLB_CONN_TYPE "socket" is tcp, "udp" is udp,
                       ///< all else and none is pipe
        pipe,          ///< a local pipe: "pipe:NAME"
        tcp,           ///< "socket:ADDRESS:PORT"
        udp            ///< "udp:ADDRESS:PORT"
    };

    /** Called with the new callback address. */
    using AddressHandler = std::function<void(const VornString& sAddress)>;

    /** How a sink works. The values given here suit most clients. */
    struct Options {
        Kind kind = Kind::byEnvironment; ///< the transport

        VornString
            sPipeName; ///< pipe: its name; empty: "quorax", the process id as "%x", "-" and digits that make
                       ///< it unique. A name in use throws 98 (EADDRINUSE); a dead server's file is replaced
        VornString sPipeGroup; ///< pipe: the group that the file is given to; empty: the process's, or that
                               ///< of a directory that is set-group-ID. Mode is 0770
        int nPort = 0; ///< TCP, UDP: 1 to 65535, one in use throws 98; 0: the system chooses, and the address
                       ///< tells
        VornString sBindAddress;   ///< TCP, UDP: dotted address, or "*" for all; empty: the address that
                                   ///< "localhost" has, found as VornLibraryCallbackSink does
        VornString sPublishedHost; ///< TCP, UDP: dotted address for getCallbackAddress(); empty: the bind
                                   ///< address, which must then not be "*"

        std::chrono::milliseconds readLimit{10'000}; ///< from accepting a connection to the end of its stream
        std::size_t nMessageLimit = 16UL * 1024 * 1024; ///< most bytes of one notification, handle included
        std::size_t nByteLimit = 64UL * 1024 * 1024;    ///< most bytes read and waiting for callbacks; at it
                                                        ///< only one notification at a time is read on
        std::size_t nConnectionLimit =
            0; ///< most connections at once, those of waiting notifications included;
               ///< 0: half the descriptors that the process may have, at most 1024

        std::vector<unsigned int> allowedUsers; ///< pipe: user ids that may send, by the peer's credentials;
                                                ///< empty: whoever the file's mode lets in
        std::vector<VornString>
            allowedNetworks; ///< TCP, UDP: sources that may send, as "10.0.0.5" or "10.0.0.0/8";
                             ///< empty: all. The list that does not fit the transport is not used

        AddressHandler
            onAddressChange; ///< called on a thread of the sink that calls no callbacks, when
                             ///< getCallbackAddress() has changed: tell the services. It may be empty
    };

    /** Sums since the construction, and what is there now. */
    struct Statistics {
        std::uint64_t nDelivered = 0; ///< callbacks that have returned
        std::uint64_t nFailed = 0;    ///< callbacks that have thrown
        std::uint64_t nUnknown = 0;   ///< notifications for an id that is not registered
        std::uint64_t nRefused = 0;   ///< senders that are not allowed
        std::uint64_t nTimedOut = 0;  ///< connections cut at the read limit
        std::uint64_t nTooLong = 0;   ///< notifications above nMessageLimit
        std::uint64_t nIncomplete =
            0; ///< connections and datagrams that ended before the handle's 8 bytes, or by reset
        std::size_t nWaiting = 0;     ///< notifications read and not yet called for, the running one included
        std::size_t nConnections = 0; ///< connections open now
    };

    /** Opens a sink with the options as they stand above. @param moduleName names its threads, cut to 15
     * bytes.
     * @throws VornException, see below */
    explicit VornSteadySink(const VornString& moduleName);

    /**
     * Opens a sink; when it returns, the sink can be reached.
     * @throws VornException "VornSteadySink::VornSteadySink: invalid option." 22 (EINVAL) for a name,
     * address, network or port that is none, an unknown group, a limit that is 0 or negative (but
     * nConnectionLimit), or "*" without a published host; "VornSteadySink::VornSteadySink: failed to open
     * server." with the error number: 2 no pipe directory, 13 no permission, 98 in use, 99 no such local
     * address or "localhost" not found; "VornSteadySink::VornSteadySink: failed to start." with the error
     * number
     */
    VornSteadySink(const VornString& moduleName, const Options& options);

    /** Closes everything and removes the pipe's file; then the callbacks are let go of. */
    ~VornSteadySink();

    VornSteadySink(const VornSteadySink&) = delete;
    VornSteadySink& operator=(const VornSteadySink&) = delete;

    /** @return the sink's registry of callbacks; it lives as long as the sink. */
    VornCallbackContainer& getCallbackContainer();

    /** @return the address to pass to services, such as "pipe:quorax1f3a-5d0c9b12" or
     * "socket:127.0.0.1:40123". */
    VornString getCallbackAddress() const;

    /** @return all numbers, of one moment. */
    Statistics statistics() const;

private:
    class VORNNOTIFY_LOCAL State;
    std::unique_ptr<State> m_spState;
};

} // namespace VornNet

#endif
