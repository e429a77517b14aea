// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_RELAY_H
#define VORNRELAY_RELAY_H

#include "ControlPipe.h"
#include "MetricsSocket.h"
#include "NatsEngine.h"
#include "RelayCounters.h"
#include "RelayHosts.h"
#include "RelayLoop.h"
#include "RelayServices.h"
#include "RelaySettings.h"
#include "RelayTopics.h"
#include "SinkDelivery.h"

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace VornRelay {

/**
 * A host's relay: it accepts notifications for sinks of other hosts, and delivers those of other hosts to
 * sinks of this one.
 *
 * Thread-safety: none; run() and everything it does are on one thread, to which the engine's posts. Blocking:
 * run() until a signal. Ownership: of all parts. Signals: run() takes SIGTERM, SIGINT and SIGHUP, which have
 * to be blocked before it is constructed. Errors: std::system_error when it cannot start.
 */
class Relay : private Engine::Listener {
public:
    Relay(RelaySettings settings, std::string sSettingsFile);
    ~Relay() override;

    /** Works until SIGTERM or SIGINT, and then ends in order: takes nothing more, publishes what it has
     * accepted, finishes the deliveries that are under way. */
    void run();

private:
    class Signals;

    void connected() override;
    void disconnected(const std::string& sWhy) override;
    void arrived(Engine::Arrival&& arrival) override;
    void pullEnded(const std::string& sConsumer) override;
    void consumerLost(const std::string& sConsumer) override;
    void told(const std::string& sSubject, const std::string& sText) override;

    void askEngine();
    void look();
    void sayReady();
    void reload();
    void beginToStop();
    bool isDone();

    std::string answer(const ControlRequest& request);
    std::string lease(const ControlRequest& request);
    std::string release(const ControlRequest& request);
    nlohmann::json sinks() const;
    std::string status();
    std::string metrics();

    RelaySettings m_settings;
    const std::string m_sSettingsFile;
    RelayLoop m_loop;
    std::unique_ptr<Signals> m_spSignals;
    RelayCounters m_counters;
    NatsEngine m_engine;
    RelayHosts m_hosts;
    RelayTopics m_topics;
    RelayServices m_services;
    std::unique_ptr<SinkDelivery> m_spDelivery;
    ControlPipe m_control;
    std::optional<MetricsSocket> m_metrics;
    RelayLoop::Timer m_look = 0;
    RelayLoop::Timer m_asking = 0;
    std::optional<Engine::Fill> m_fill; // of the own stream, as far as it may be seen
    RelayLoop::Clock::time_point m_stopUntil;
    RelayLoop::Clock::time_point m_nextSign;
    std::string m_sLastFailure;
    bool m_bConnected = false;
    bool m_bReady = false;
    bool m_bStopping = false;
};

} // namespace VornRelay

#endif
