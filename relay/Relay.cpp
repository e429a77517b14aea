// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Relay.h"

#include "RelayLog.h"
#include "ServiceManager.h"

#include <PipeListener.h>
#include <VornPipeServer.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include <nlohmann/json.hpp>
#include <sys/signalfd.h>
#include <sys/stat.h>

namespace VornRelay {

namespace {

using Json = nlohmann::json;
using std::chrono::milliseconds;

constexpr milliseconds cLookInterval{100};
constexpr milliseconds cStopLimit{10'000};
constexpr milliseconds cAskInterval{10'000};
constexpr std::string_view cPipe = "pipe:";
constexpr std::size_t cLongestName = 256;

/** @throws LeaseRefused when the user may not open that pipe himself: the relay would do it for him. */
void checkAddress(const std::string& sAddress, uid_t user) {
    const VornSupport::VornString sName = sAddress.substr(std::min(cPipe.size(), sAddress.size())).c_str();
    if (!sAddress.starts_with(cPipe) || !VornNet::PipeListener::isName(sName))
        throw LeaseRefused("only a pipe can be leased: pipe: and a name without '/'");

    struct stat file {};

    if (System::lstat(VornNet::VornPipeServer::getFullPipeName(sName).c_str(), &file) == -1 ||
        !S_ISSOCK(file.st_mode))
        throw LeaseRefused("there is no such pipe");
    if (user != 0 && file.st_uid != user)
        throw LeaseRefused("the pipe belongs to another user");
}

Json sinkOf(const Lease& lease, const SinkDelivery::Queue& queue) {
    return {{"name", lease.sName},
            {"address", lease.sAddress},
            {"handle", lease.nHandle},
            {"user", lease.user},
            {"process", lease.process},
            {"waiting", queue.nWaiting},
            {"oldest", static_cast<double>(queue.oldest.count()) / 1000},
            {"tries", queue.nTries},
            {"away", queue.bAway}};
}

} // namespace

/** Takes the process's signals on the loop's thread. */
class Relay::Signals : public RelayLoop::Handler {
public:
    explicit Signals(Relay& relay) : m_relay(relay) {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int nSignal : {SIGTERM, SIGINT, SIGHUP})
            sigaddset(&signals, nSignal);
        m_socket = VornNet::OwnedDescriptor::opened(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
        m_relay.m_loop.watch(m_socket.number(), EPOLLIN, *this);
    }

    void ready(std::uint32_t) override {
        signalfd_siginfo signal{};
        while (System::read(m_socket.number(), &signal, sizeof signal) == sizeof signal) {
            if (signal.ssi_signo == SIGHUP)
                m_relay.reload();
            else
                m_relay.beginToStop();
        }
    }

private:
    Relay& m_relay;
    VornNet::OwnedDescriptor m_socket;
};

Relay::Relay(RelaySettings settings, std::string sSettingsFile)
    : m_settings(std::move(settings)), m_sSettingsFile(std::move(sSettingsFile)),
      m_spSignals(std::make_unique<Signals>(*this)),
      m_engine(m_loop, m_settings.access, m_settings.publishTimeout, *this),
      m_hosts(m_loop, m_engine, m_settings, m_counters), m_topics(m_loop, m_engine, m_settings),
      m_services(m_loop, m_engine, m_settings),
      m_control(m_loop, "relay", [this](const ControlRequest& request) { return answer(request); }) {
    g_nLogLevel.store(m_settings.nLogLevel, std::memory_order_relaxed);
    if (m_settings.bReceive)
        m_spDelivery = std::make_unique<SinkDelivery>(m_loop, m_engine, m_settings, m_counters);
    if (!m_settings.sMetrics.empty())
        m_metrics.emplace(m_loop, m_settings.sMetrics, [this] { return metrics(); });
}

Relay::~Relay() {
    m_engine.stop(); // its threads post no more; what they have posted is thrown away with the loop
    m_loop.cancel(m_look);
    m_loop.cancel(m_asking);
}

void Relay::run() {
    m_hosts.open();
    m_control.open();
    m_engine.start();
    look();
    m_loop.run();
    m_engine.stop();
    logLine(LogLevel::change, "stopped");
}

void Relay::connected() {
    m_bConnected = true;
    m_sLastFailure.clear();
    logLine(LogLevel::change, "connected to the engine");
    m_hosts.setConnected(true);
    if (m_spDelivery)
        m_spDelivery->setConnected(true);
    m_topics.setConnected(true);
    m_services.setConnected(true);
    askEngine();
}

void Relay::disconnected(const std::string& sWhy) {
    if (m_bConnected || sWhy != m_sLastFailure)
        logLine(LogLevel::warning, "no connection to the engine: " + sWhy);
    m_sLastFailure = sWhy;
    if (!m_bConnected)
        return;
    m_bConnected = false;
    m_bReady = false;
    m_fill.reset();
    m_loop.cancel(m_asking);
    tellServiceManager("STATUS=no connection to the engine: " + sWhy);
    m_hosts.setConnected(false);
    if (m_spDelivery)
        m_spDelivery->setConnected(false);
    m_topics.setConnected(false);
    m_services.setConnected(false);
}

void Relay::arrived(Engine::Arrival&& arrival) {
    if (m_spDelivery)
        m_spDelivery->reader().arrived(std::move(arrival));
}

void Relay::pullEnded(const std::string& sConsumer) {
    if (m_spDelivery)
        m_spDelivery->reader().pullEnded(sConsumer);
}

void Relay::consumerLost(const std::string& sConsumer) {
    if (m_spDelivery)
        m_spDelivery->reader().consumerLost(sConsumer);
}

void Relay::told(const std::string& sSubject, const std::string& sText) {
    if (m_services.told(sSubject, sText))
        return;
    m_topics.told(sSubject);
    m_hosts.told(sSubject, sText);
}

/** Asks what the engine does not tell by itself, at each connection and now and then. */
void Relay::askEngine() {
    m_loop.cancel(m_asking);
    m_asking = m_loop.after(cAskInterval, [this] { askEngine(); });
    if (m_spDelivery)
        m_engine.measure([this](const Engine::Fill* pFill) {
            m_fill = pFill == nullptr ? std::nullopt : std::optional(*pFill);
        });
    m_hosts.ask();
}

void Relay::look() {
    m_look = m_loop.after(cLookInterval, [this] { look(); });
    if (m_bStopping) {
        if (isDone())
            m_loop.end();
        return;
    }
    m_hosts.look();
    sayReady();
}

void Relay::sayReady() {
    const bool bReady = m_bConnected && (!m_spDelivery || m_spDelivery->reader().isReading());
    if (bReady && !m_bReady) {
        tellServiceManager("READY=1\nSTATUS=connected");
        logLine(LogLevel::change, "ready");
    }
    m_bReady = bReady;
    const auto now = RelayLoop::Clock::now();
    if (watchdogInterval() > milliseconds(0) && now >= m_nextSign) {
        tellServiceManager("WATCHDOG=1");
        m_nextSign = now + watchdogInterval();
    }
}

void Relay::reload() try {
    const RelaySettings fresh = RelaySettings::read(m_sSettingsFile);
    m_settings.patience = fresh.patience;
    m_settings.onSlow = fresh.onSlow;
    m_settings.slowAfter = fresh.slowAfter;
    m_settings.nLogLevel = fresh.nLogLevel;
    m_settings.redirectAddresses = fresh.redirectAddresses;
    for (const std::string& sFailure : m_topics.change(fresh))
        logLine(LogLevel::failure, sFailure);
    m_services.change(fresh);
    m_hosts.change(fresh);
    if (m_bConnected)
        askEngine();
    g_nLogLevel.store(fresh.nLogLevel, std::memory_order_relaxed);
    logLine(LogLevel::change,
            "send-to, patience, on-slow, slow-after, redirect-address, topic, follow, offer, "
            "reach and log-level were read again");

} catch (const SettingsError& error) {

    logLine(LogLevel::failure, std::string("the configuration stays as it was: ") + error.what());
}

void Relay::beginToStop() {
    if (m_bStopping)
        return;
    m_bStopping = true;
    m_stopUntil = RelayLoop::Clock::now() + cStopLimit;
    tellServiceManager("STOPPING=1");
    logLine(LogLevel::change, "stopping");
    m_control.close();
    m_hosts.stop();
    m_services.stop();
    if (m_spDelivery)
        m_spDelivery->stop();
}

bool Relay::isDone() {
    if (RelayLoop::Clock::now() >= m_stopUntil) {
        logLine(LogLevel::warning, "stops with notifications that have no outcome");
        return true;
    }
    return m_hosts.isIdle() && (!m_spDelivery || m_spDelivery->isIdle());
}

std::string Relay::answer(const ControlRequest& request) {
    if (request.sVerb == "lease")
        return lease(request);
    if (request.sVerb == "release")
        return release(request);
    std::string sBytes;
    putText(sBytes, request.sVerb == "leases" ? sinks().dump() : status());
    return sBytes;
}

std::string Relay::lease(const ControlRequest& request) {
    std::string sBytes;
    try {
        if (!m_spDelivery)
            throw LeaseRefused("this relay does not receive");
        if (request.texts[0].size() > cLongestName)
            throw LeaseRefused("the name is too long");
        checkAddress(request.texts[1], request.user);
        Lease lease;
        lease.sName = request.texts[0];
        lease.user = request.user;
        lease.sAddress = request.texts[1];
        lease.nHandle = request.nHandle;
        lease.process = request.process;
        lease.nStart = request.process == 0 ? 0 : startOfProcess(request.process);
        const Lease& granted = m_spDelivery->grant(lease);
        putText(sBytes, "pipe:relay-" + m_settings.access.sHost);
        putLong(sBytes, granted.nNumber);
    } catch (const std::exception& error) {
        sBytes.clear();
        putText(sBytes, "");
        putLong(sBytes, 0);
        putText(sBytes, error.what());
    }
    return sBytes;
}

std::string Relay::release(const ControlRequest& request) {
    std::string sWhy;
    try {
        const Lease* pLease = m_spDelivery ? m_spDelivery->leases().find(request.texts[0]) : nullptr;
        if (pLease == nullptr || !pLease->isNamed())
            sWhy = "there is no lease of that name";
        else if (request.user != 0 && request.user != pLease->user)
            sWhy = "the name belongs to another user";
        else
            m_spDelivery->end(pLease->nNumber);
    } catch (const std::exception& error) {
        sWhy = error.what();
    }
    std::string sBytes;
    putText(sBytes, sWhy);
    return sBytes;
}

nlohmann::json Relay::sinks() const {
    Json list = Json::array();
    if (m_spDelivery) {
        for (const auto& [nNumber, lease] : m_spDelivery->leases().all())
            list.push_back(sinkOf(lease, m_spDelivery->queueOf(nNumber)));
        const auto own = m_settings.redirectAddresses.find(m_settings.access.sHost);
        for (const std::uint16_t nPort : m_spDelivery->ports()) {
            Lease port;
            port.sAddress = "socket:" + (own == m_settings.redirectAddresses.end() ? "" : own->second) + ":" +
                            std::to_string(nPort);
            list.push_back(sinkOf(port, m_spDelivery->queueOf(nPort)));
        }
    }
    return list;
}

std::string Relay::status() {
    Json stream;
    if (m_fill)
        stream = {{"messages", m_fill->nMessages},
                  {"bytes", m_fill->nBytes},
                  {"limit", m_fill->nMostBytes},
                  {"messages-limit", m_fill->nMostMessages}};
    return Json{{"host", m_settings.access.sHost},
                {"connected", m_bConnected},
                {"ready", m_bReady},
                {"failure", m_sLastFailure},
                {"accepted", m_counters.nAccepted},
                {"published", m_counters.nPublished},
                {"refused", m_counters.nRefused},
                {"delivered", m_counters.nDelivered},
                {"skipped", m_counters.nSkipped},
                {"dead", m_counters.dead},
                {"held", m_spDelivery ? m_spDelivery->reader().held() : 0},
                {"leases", m_spDelivery ? m_spDelivery->leases().all().size() : 0},
                {"tries", m_counters.nTries},
                {"resets", m_counters.nResets},
                {"moved-ports", m_counters.nMovedPorts},
                {"repeated", m_hosts.repeated()},
                {"hosts", m_hosts.status()},
                {"sinks", sinks()},
                {"stream", stream},
                {"topics", m_topics.status()},
                {"services", m_services.status()}}
        .dump();
}

std::string Relay::metrics() {
    std::string sText;
    m_counters.print(sText);
    const std::pair<const char*, std::size_t> gauges[] = {
        {"connected", m_bConnected ? 1 : 0},
        {"ready", m_bReady ? 1 : 0},
        {"waiting_bytes", m_hosts.heldBytes()},
        {"held", m_spDelivery ? m_spDelivery->reader().held() : 0},
        {"leases", m_spDelivery ? m_spDelivery->leases().all().size() : 0}};
    for (const auto& [szName, nValue] : gauges)
        printMetric(sText, szName, "gauge", std::to_string(nValue));
    printMetric(sText, "repeated_total", "counter", std::to_string(m_hosts.repeated()));
    m_services.printMetrics(sText);
    if (m_spDelivery)
        m_spDelivery->printOldest(sText);
    m_topics.print(sText);
    if (m_fill) {
        printMetric(sText, "stream_messages", "gauge", std::to_string(m_fill->nMessages));
        printMetric(sText, "stream_bytes", "gauge", std::to_string(m_fill->nBytes));
        printMetric(sText, "stream_limit_bytes", "gauge", std::to_string(m_fill->nMostBytes));
    }
    return sText;
}

} // namespace VornRelay
