// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_NATSLINK_H
#define VORNRELAY_NATSLINK_H

#include "NatsConnection.h"
#include "RelayLoop.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace VornRelay {

/**
 * One connection to the engine's server, which is read and written on the loop's thread.
 *
 * The client library would have a thread for reading and one for each subscription, so each message would
 * pass three threads before anything is done with it. With a loop of the caller's it has none, and what is
 * published in a turn of the loop leaves in one piece.
 *
 * Two habits of libnats 3.4.1 need care. Its own timer for pings closes a connection that the loop may just
 * be reading; so ping() takes its place. And once it has begun to read a TLS record it waits for the rest
 * without a limit; ping() ends that too, when the server is gone in the middle of one.
 *
 * Thread-safety: connect(), ping() and awaitClosed() are for a thread that may wait; all else is for the
 * loop's. Blocking: the loop, while the rest of a TLS record is on its way; and while the server reads
 * nothing, up to the limit in EngineAccess, after which the connection is closed. Ownership: the loop must
 * outlive it. Signals: none raised. Errors: told by connect(); later the connection is closed.
 */
class NatsLink : public RelayLoop::Handler, public std::enable_shared_from_this<NatsLink> {
public:
    /** Is given each message. A message that was pulled has another subject than the one that was subscribed
     * to.
     * @param nPlace of the latter @param message null: nobody is there for the oldest request whose answer
     * was to come there, which the client library tells without saying which one it was */
    using MessageHandler = std::function<void(std::size_t nPlace, NatsPointer<natsMsg> message)>;

    /** Is told what the server refuses, on a thread of the client library. */
    using ErrorHandler = std::function<void(const std::string& sText)>;

    /** @param sPrefix of the inbox */
    NatsLink(RelayLoop& loop, const std::string& sPrefix, MessageHandler onMessage, ErrorHandler onError);
    ~NatsLink() override;

    NatsLink(const NatsLink&) = delete;
    NatsLink& operator=(const NatsLink&) = delete;

    /** @return where answers and messages come. It is that of this connection alone: what comes late for an
     * earlier one, also of a relay that was killed, must not be taken for what this one has asked for. */
    const std::string& inbox() const { return m_sInbox; }

    /** Connects and subscribes. Nothing is read before begin(). @throws std::runtime_error, and the
     * connection is closed */
    void connect(const EngineAccess& access, const std::string& sSubject);

    /** Waits until the server has read what was published before and says so. When it does not, the
     * connection is closed. */
    void ping(std::chrono::milliseconds limit);

    /** Waits until the client library's threads have done with it; it must have been closed. */
    void awaitClosed();

    bool isClosed() const { return natsConnection_IsClosed(m_spConnection.get()); }

    /** @return why it was closed, as far as the client library knows. */
    std::string whyClosed() const;

    std::size_t mostContent() const;

    /** Subscribes to the answers of an addressee, once, at PREFIX.PLACE.*. @return the place */
    std::size_t placeFor(const std::string& sAddressee, const std::string& sPrefix);

    /** Subscribes to a subject, once. */
    void listenTo(const std::string& sSubject);

    void ignore(const std::string& sSubject);

    /** Reads and writes from now on, as often as the loop finds something to be done. */
    void begin();

    /** Publishes; @p send is given the connection. @return whether it was taken */
    bool send(const std::function<natsStatus(natsConnection* connection)>& send);

    /** Reads and writes what there is, in place of a loop that does not run any more. Messages are handed to
     * nobody.
     */
    void serve(std::chrono::milliseconds limit);

    /** Closes the connection, also for ping(). */
    void close() { natsConnection_Close(m_spConnection.get()); }

private:
    static natsStatus onAttach(void** object, void* link, natsConnection*, natsSock socket);
    static natsStatus onWatchReading(void* object, bool bOn);
    static natsStatus onWatchWriting(void* object, bool bOn);
    static natsStatus onDetach(void* object);
    static void onClosed(natsConnection*, void* closure);
    static void onError(natsConnection* connection, natsSubscription*, natsStatus status, void* closure);

    natsStatus subscribe(const std::string& sSubject);
    void ready(std::uint32_t nEvents) override;
    void handOn();
    void flush();
    void forget();

    RelayLoop& m_loop;
    const std::string m_sInbox;
    const MessageHandler m_onMessage;
    const ErrorHandler m_onError;
    int m_socket = -1; // the client library's; set by the loop's thread only, with m_mutex held
    bool m_bBegun = false;
    bool m_bForRoom = false; // the socket is watched for room to write
    std::atomic<bool> m_bWriting{false};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_bClosed = true; // guarded by m_mutex
    NatsPointer<natsConnection> m_spConnection;
    std::vector<NatsPointer<natsSubscription>> m_subscriptions; // by place; null where it failed or has ended
    std::map<std::string, std::size_t> m_places;                // by addressee
    std::map<std::string, std::size_t> m_listenedTo;            // places by subject
};

} // namespace VornRelay

#endif
