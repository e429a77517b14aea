// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_NATSENGINE_H
#define VORNRELAY_NATSENGINE_H

#include "Engine.h"
#include "NatsLink.h"
#include "RelayLog.h"
#include "RelayLoop.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace VornRelay {

/**
 * An Engine that is NATS with JetStream.
 *
 * A thread of its own connects, waits until the connection is closed, and connects again; so certificates are
 * read at each connection, and nothing is kept and sent later by the client library. The library's own pull
 * and acknowledge functions are not used: natsSubscription_Fetch() of 3.4.1 writes past its array when
 * messages of an earlier request still wait, and natsMsg_Ack() follows a pointer that may have gone.
 *
 * Blocking: publish() and what else sends, see NatsLink.
 */
class NatsEngine : public Engine {
public:
    /** @param answerLimit after which an answer is `unknown` */
    NatsEngine(RelayLoop& loop, EngineAccess access, std::chrono::milliseconds answerLimit,
               Listener& listener);

    /** Stops. The loop must not run any more, for tasks may be waiting there. */
    ~NatsEngine() override;

    /** Begins to connect. */
    void start();

    /** Sends what has been published, closes the connection and ends the thread. */
    void stop();

    void publish(const Message& message, AnswerHandler onAnswer) override;
    void open(const std::string& sConsumer, const std::string& sFilter, OpenHandler onOpened) override;
    void close(const std::string& sConsumer) override;
    void pull(const std::string& sConsumer, std::size_t nCount) override;
    std::chrono::milliseconds pullLife() const override;
    void acknowledge(const std::string& sReceipt) override;
    void tell(const std::string& sSubject, const std::string& sText) override;
    void listenTo(const std::string& sSubject) override;
    void ignore(const std::string& sSubject) override;
    void read(const std::string& sStream, const std::string& sSubject, std::uint64_t nFrom,
              StoredHandler onStored) override;
    void measure(FillHandler onAnswer) override;
    void listHosts(HostsHandler onAnswer) override;
    std::size_t mostContent() const override;

private:
    using Clock = RelayLoop::Clock;
    using ReplyHandler = std::function<void(const std::string* pReply)>; // null: none came

    struct Waiting {
        Clock::time_point until;
        ReplyHandler onReply;
        std::size_t nPlace = 0; // where its answer comes
        bool bOfStream = false; // which answers, and not the server
    };

    void keepConnected();
    std::shared_ptr<NatsLink> connect(std::string& sWhy);
    void attend(NatsLink& link);
    std::shared_ptr<NatsLink> link() const;
    bool isFlushed() const;

    void ask(const Message& message, ReplyHandler onReply);
    void request(const std::string& sSubject, const std::string& sText, ReplyHandler onReply);
    void listHostsFrom(std::shared_ptr<std::vector<std::string>> spStreams, HostsHandler onAnswer);
    void lookAt(const std::string& sConsumer, OpenHandler onOpened);
    void create(const std::string& sConsumer, const std::string& sFilter, OpenHandler onOpened);
    static bool send(NatsLink& link, const Message& message, const std::string& sReply);
    bool send(const Message& message);
    void settle(std::uint64_t nTicket, const std::string* pReply);
    void failAll();
    void sweep();
    void giveUp(std::size_t nPlace);

    void take(std::size_t nPlace, NatsPointer<natsMsg> owned);
    void takeReply(natsMsg* message);
    void takeAbsence(std::size_t nPlace);
    void takeArrival(natsMsg* message);
    void takeStatus(natsMsg* message);
    void complain(const std::string& sText);

    RelayLoop& m_loop;
    const EngineAccess m_access;
    const std::string m_sStream;
    const std::chrono::milliseconds m_answerLimit;
    Listener& m_listener;
    std::set<std::string> m_listenedTo;
    std::map<std::uint64_t, Waiting> m_waiting; // by ticket, and so by time
    std::uint64_t m_nLastTicket = 0;
    RelayLoop::Timer m_sweep = 0;
    RareLine m_errorLine;
    std::atomic<std::size_t> m_nMostContent{0};

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::shared_ptr<NatsLink> m_spLink; // guarded by m_mutex
    bool m_bStopping = false;           // guarded by m_mutex
    bool m_bFlushed = false;            // guarded by m_mutex
    std::thread m_thread;
};

} // namespace VornRelay

#endif
