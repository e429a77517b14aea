// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_TOPICSOURCE_H
#define VORNRELAY_TOPICSOURCE_H

#include "EventBatch.h"
#include "RelayLog.h"
#include "RelayLoop.h"

#include <VornSubscriber.h>

#include <deque>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

namespace VornRelay {

/**
 * The service's side of a topic: subscribes at a publisher of this host, and has its events stored.
 *
 * At each connection to the engine it asks for the newest message that is stored, and subscribes after its
 * last event. So the service's history bridges whatever may have happened, and nothing has to be remembered
 * here. One message is under way at a time, which holds what has come meanwhile, up to a limit; it is stored
 * only if no other has come in between. When that fails, or no answer comes, it begins like that again.
 *
 * Thread-safety: none. Blocking: none. Ownership: loop and engine must outlive it. Signals: none raised.
 * Errors: VornException from the constructor for an address or a topic that is none; what is not stored is
 * logged and tried again.
 */
class TopicSource : private RelayLoop::Handler {
public:
    TopicSource(RelayLoop& loop, Engine& engine, std::string sHost, std::string sTopic, std::string sAddress);
    ~TopicSource() override;

    TopicSource(const TopicSource&) = delete;
    TopicSource& operator=(const TopicSource&) = delete;

    void setConnected(bool bConnected);

    const std::string& address() const { return m_sAddress; }

    nlohmann::json status() const;

private:
    void begin();
    void goOn(const Engine::Stored& newest);
    void leave();
    void fail(const std::string& sWhy);
    std::unique_ptr<VornNet::VornSubscriber> subscriber();

    void ready(std::uint32_t nEvents) override;
    void take(VornNet::VornConnection& content, const VornNet::VornPosition& after);
    void publish();
    void answered(Engine::Answer answer, const std::string& sText);
    void hold();
    void tellNews();

    RelayLoop& m_loop;
    Engine& m_engine;
    const std::string m_sHost;
    const std::string m_sTopic;
    const std::string m_sAddress;
    std::unique_ptr<VornNet::VornSubscriber> m_spSubscriber;
    std::deque<EventBatch> m_batches;
    VornNet::VornPosition m_stored;  // after the last event that is stored
    std::uint64_t m_nNewest = 0;     // of the topic's messages in the stream
    std::shared_ptr<void> m_spRound; // one for each beginning: answers to earlier ones are not for this one
    bool m_bUnderWay = false;        // the first batch
    bool m_bHeld = false;            // no more is taken for now
    RelayLoop::Timer m_pause = 0;
    std::string m_sFailure;
    RareLine m_failureLine;
    RareLine m_longLine;
};

} // namespace VornRelay

#endif
