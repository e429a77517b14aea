// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkDelivery.h"

#include "PipeDelivery.h"
#include "PortDelivery.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

namespace VornRelay {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t cHandleSize = 8;
constexpr std::size_t cMostNamedHeld = 256;
constexpr std::string_view cVersion = "1";
constexpr milliseconds cLookInterval{250};
constexpr std::size_t cMostLooksAtOnce = 200;

/** @return the lease or the port at the end of a subject, 0 when it is neither. */
std::uint32_t sinkIn(std::string_view sSubject) {
    const std::string_view sNumber = sSubject.substr(sSubject.rfind('.') + 1);
    std::uint32_t nSink = 0;
    std::from_chars(sNumber.data(), sNumber.data() + sNumber.size(), nSink);
    const bool bIsPort = sSubject.find(".sink.tcp.") != std::string_view::npos;
    return bIsPort == LeaseTable::isPort(nSink) ? nSink : 0;
}

const char* classOf(std::uint32_t nSink) {
    if (LeaseTable::isPort(nSink))
        return "tcp";
    return LeaseTable::isNamedNumber(nSink) ? "named" : "anonymous";
}

/** @return why a message cannot be delivered, whatever it is for; null when it can. */
const char* faultIn(const Engine::Message& message, bool bHasNumber) {
    if (message.header("Vorn-Version") != cVersion)
        return "version";
    return bHasNumber && message.sContent.size() >= cHandleSize ? nullptr : "malformed";
}

std::string consumerOf(std::uint32_t nLease) {
    return "keep-" + std::to_string(nLease);
}

} // namespace

SinkDelivery::SinkDelivery(RelayLoop& loop, Engine& engine, const RelaySettings& settings,
                           RelayCounters& counters)
    : m_loop(loop), m_engine(engine), m_settings(settings), m_counters(counters),
      m_leases(settings.sStateDirectory + "/leases"), m_journal(settings.sStateDirectory + "/journal"),
      m_deadLetters(loop, engine, {settings.nWindow}, nullptr),
      m_reader(loop, engine, [this](std::uint64_t nPosition, Engine::Message&& message) {
          take(nPosition, std::move(message));
      }) {
    if (m_leases.damagedLines() > 0)
        logLine(LogLevel::warning, "leases: " + std::to_string(m_leases.damagedLines()) +
                                       " lines could not be read; these leases have ended");
    if (m_journal.wasDamaged())
        logLine(LogLevel::warning, "the journal was damaged and put aside: what was delivered and not yet "
                                   "acknowledged is delivered again");
    for (const std::uint32_t nLease : m_journal.leases()) {
        if (!isSink(nLease))
            m_journal.forget(nLease); // the relay was killed while it ended
    }
    const std::string sSubject = "vorn.to." + settings.access.sHost;
    m_reader.add("relay", sSubject + ".sink.>", settings.nHeld);
    if (settings.access.bFixedConsumer)
        m_reader.add("keep", sSubject + ".keep.>", settings.nHeld);
    for (const auto& [nNumber, lease] : m_leases.all()) {
        if (lease.isNamed())
            readNamed(nNumber);
    }
    for (const std::uint32_t nNumber : m_leases.endedNames())
        readNamed(nNumber);
    look();
}

SinkDelivery::~SinkDelivery() {
    m_loop.cancel(m_look);
}

void SinkDelivery::setConnected(bool bConnected) {
    m_deadLetters.setConnected(bConnected);
    m_reader.setConnected(bConnected);
}

const Lease& SinkDelivery::grant(const Lease& lease) {
    const bool bIsKnown = lease.isNamed() && m_leases.find(lease.sName) != nullptr;
    const Lease& granted = m_leases.grant(lease);
    if (granted.isNamed() && !bIsKnown)
        readNamed(granted.nNumber);
    lookAt(granted.nNumber);
    return granted;
}

void SinkDelivery::end(std::uint32_t nLease) {
    const Lease* pLease = m_leases.find(nLease);
    if (pLease == nullptr)
        return;
    const Lease lease = *pLease;
    m_leases.end(nLease);
    m_engine.tell("vorn.gone." + m_settings.access.sHost, std::to_string(nLease));
    // Services that have not heard of it go on sending to a name: that has to be read, and told again.
    const std::vector<std::uint32_t>& ended = m_leases.endedNames();
    if (lease.isNamed() && !m_settings.access.bFixedConsumer && ended.size() > LeaseTable::cMostEndedNames)
        m_reader.remove(consumerOf(ended[ended.size() - LeaseTable::cMostEndedNames - 1]));
    lookAt(nLease);
    deliverNext(nLease);
}

void SinkDelivery::stop() {
    m_bStopped = true;
    m_reader.stop();
}

SinkDelivery::Queue SinkDelivery::queueOf(std::uint32_t nLease) const {
    Queue result;
    const auto found = m_queues.find(nLease);
    if (found == m_queues.end() || found->second.waiting.empty())
        return result;
    const LeaseQueue& queue = found->second;
    result.nWaiting = queue.waiting.size();
    result.nTries = queue.waiting.front().nTries;
    result.oldest = std::chrono::duration_cast<milliseconds>(Clock::now() - queue.waiting.front().arrived);
    result.bAway = queue.spDelivery && queue.spDelivery->isAway();
    return result;
}

std::vector<std::uint16_t> SinkDelivery::ports() const {
    std::vector<std::uint16_t> ports;
    for (const auto& [nSink, queue] : m_queues) {
        if (LeaseTable::isPort(nSink))
            ports.push_back(static_cast<std::uint16_t>(nSink));
    }
    return ports;
}

void SinkDelivery::printOldest(std::string& sText) const {
    std::map<std::string, double> ages{{"anonymous", 0}, {"named", 0}, {"tcp", 0}};
    for (const auto& [nLease, queue] : m_queues) {
        if (queue.waiting.empty())
            continue;
        const std::chrono::duration<double> age = Clock::now() - queue.waiting.front().arrived;
        double& oldest = ages[classOf(nLease)];
        oldest = std::max(oldest, age.count());
    }
    sText += "# TYPE vornnet_relay_oldest_seconds gauge\n";
    for (const auto& [sClass, age] : ages)
        sText += "vornnet_relay_oldest_seconds{class=\"" + sClass + "\"} " + std::to_string(age) + "\n";
}

void SinkDelivery::take(std::uint64_t nPosition, Engine::Message&& message) {
    Notification notification;
    notification.nPosition = nPosition;
    notification.arrived = Clock::now();
    notification.sSource = message.header("Vorn-From");
    const std::string_view sId = message.header("Nats-Msg-Id");
    // What has an identity of the sender's own is known again by the engine alone.
    const auto number = sId.starts_with(givenIdOf(notification.sSource, ""))
                            ? std::optional(NotificationNumber())
                            : numberIn(sId, notification.sSource);
    const char* szFault = faultIn(message, number.has_value());
    const std::uint32_t nLease = sinkIn(message.sSubject);
    notification.message = std::move(message);
    if (szFault != nullptr) {
        bury(std::move(notification), szFault);
        return;
    }
    notification.number = *number;
    if (!isSink(nLease)) {
        m_engine.tell("vorn.gone." + m_settings.access.sHost, std::to_string(nLease));
        bury(std::move(notification), "gone");
        return;
    }
    LeaseQueue& queue = m_queues[nLease];
    if (queue.nLetters > 0) {
        buryLater(nLease, queue, std::move(notification), "slow");
        return;
    }
    queue.waiting.push_back(std::move(notification));
    if (queue.waiting.size() == 1)
        deliverNext(nLease);
    else if (isSlow(nLease, queue))
        buryNewest(nLease, queue);
}

/** A burst that the sink works off is not slow: it only takes the others' room, and not for long. */
bool SinkDelivery::isSlow(std::uint32_t nLease, const LeaseQueue& queue) const {
    return !LeaseTable::isNamedNumber(nLease) && m_settings.onSlow == RelaySettings::OnSlow::dead &&
           queue.waiting.size() > m_settings.nHeld / 4 &&
           Clock::now() - queue.waiting.front().arrived > m_settings.slowAfter;
}

void SinkDelivery::buryNewest(std::uint32_t nLease, LeaseQueue& queue) {
    const auto newest = queue.waiting.begin() + static_cast<std::ptrdiff_t>(m_settings.nHeld / 4);
    for (auto notification = newest; notification != queue.waiting.end(); ++notification)
        buryLater(nLease, queue, std::move(*notification), "slow");
    queue.waiting.erase(newest, queue.waiting.end());
}

void SinkDelivery::deliverNext(std::uint32_t nLease) {
    const auto found = m_queues.find(nLease);
    if (found == m_queues.end()) {
        if (!isSink(nLease))
            m_journal.forget(nLease);
        return;
    }
    LeaseQueue& queue = found->second;
    if (queue.spDelivery || queue.bBurying)
        return; // it goes on when the first one has found its end
    while (!isSink(nLease) && !queue.waiting.empty()) {
        bury(std::move(queue.waiting.front()), "gone");
        queue.waiting.pop_front();
    }
    while (!queue.waiting.empty() && wasDelivered(nLease, queue.waiting.front())) {
        ++m_counters.nSkipped;
        dropFirst(queue);
    }
    if (!queue.waiting.empty()) {
        if (m_bStopped)
            return;
        queue.spDelivery = deliveryOf(nLease, queue);
        ++m_nUnderWay;
        queue.spDelivery->begin();
        return;
    }
    if (queue.nLetters > 0)
        return;
    m_queues.erase(found);
    if (!isSink(nLease))
        m_journal.forget(nLease);
}

/** @return whether there is such a lease, or, for a port, whether this host has TCP sinks that others may
 * notify. */
bool SinkDelivery::isSink(std::uint32_t nSink) const {
    if (!LeaseTable::isPort(nSink))
        return m_leases.find(nSink) != nullptr;
    return nSink != 0 && m_settings.redirectAddress(m_settings.access.sHost).s_addr != INADDR_ANY;
}

std::unique_ptr<Delivery> SinkDelivery::deliveryOf(std::uint32_t nSink, LeaseQueue& queue) {
    const std::string_view sExchange = queue.waiting.front().message.sContent;
    const auto onDone = [this, nSink](const Delivery::Result& result) { finished(nSink, result); };
    if (LeaseTable::isPort(nSink))
        return std::make_unique<PortDelivery>(
            m_loop, m_owners, m_settings.redirectAddress(m_settings.access.sHost),
            static_cast<std::uint16_t>(nSink), sExchange, m_settings.patience, onDone);
    const Lease& lease = *m_leases.find(nSink);
    queue.sAddress = lease.sAddress;
    return std::make_unique<PipeDelivery>(m_loop, lease.sAddress, lease.nHandle,
                                          sExchange.substr(cHandleSize), onDone);
}

/** @return whether what is under way is to go on, if no callback has been called for it yet. */
bool SinkDelivery::isWanted(std::uint32_t nSink, const LeaseQueue& queue) const {
    if (m_bStopped || LeaseTable::isPort(nSink))
        return !m_bStopped;
    const Lease* pLease = m_leases.find(nSink);
    return pLease != nullptr && pLease->sAddress == queue.sAddress;
}

void SinkDelivery::finished(std::uint32_t nSink, const Delivery::Result& result) {
    LeaseQueue& queue = m_queues.at(nSink);
    queue.spDelivery.reset();
    --m_nUnderWay;
    queue.waiting.front().nTries += result.nTries;
    m_counters.nTries += result.nTries;
    m_counters.nResets += result.nResets;
    m_counters.nMovedPorts += result.nMoves;
    switch (result.outcome) {
    case Delivery::Outcome::delivered:
        consumed(nSink, queue);
        break;
    case Delivery::Outcome::unread:
        if (!isSink(nSink))
            break; // its lease has ended: that is the reason which its dead letter tells
        buryFirst(nSink, queue);
        return;
    case Delivery::Outcome::gone:
        for (Notification& notification : queue.waiting)
            buryLater(nSink, queue, std::move(notification), "gone");
        queue.waiting.clear();
        break;
    }
    deliverNext(nSink);
}

void SinkDelivery::consumed(std::uint32_t nLease, LeaseQueue& queue) {
    const Notification& first = queue.waiting.front();
    ++m_counters.nDelivered;
    m_counters.delivering.add(Clock::now() - first.arrived);
    settleFirst(nLease, queue);
}

/** The journal comes before the acknowledgement, which may be lost. */
void SinkDelivery::settleFirst(std::uint32_t nLease, LeaseQueue& queue) {
    const Notification& first = queue.waiting.front();
    if (isSink(nLease) && first.number != NotificationNumber() &&
        !m_journal.note(nLease, first.sSource, first.number))
        ++m_counters.nUnjournaled;
    dropFirst(queue);
}

bool SinkDelivery::wasDelivered(std::uint32_t nLease, const Notification& notification) const {
    return notification.number != NotificationNumber() &&
           notification.number <= m_journal.last(nLease, notification.sSource);
}

void SinkDelivery::dropFirst(LeaseQueue& queue) {
    m_reader.acknowledge(queue.waiting.front().nPosition);
    queue.waiting.pop_front();
}

/** The first one stays in its queue until its letter is stored, and so does what comes after it. */
void SinkDelivery::buryFirst(std::uint32_t nLease, LeaseQueue& queue) {
    queue.bBurying = true;
    bury(Notification(queue.waiting.front()), "refused", [this, nLease] {
        LeaseQueue& own = m_queues.at(nLease);
        own.bBurying = false;
        settleFirst(nLease, own);
        deliverNext(nLease);
    });
}

/** What comes after it is not delivered until its letter is stored. */
void SinkDelivery::buryLater(std::uint32_t nLease, LeaseQueue& queue, Notification&& notification,
                             const std::string& sReason) {
    ++queue.nLetters;
    bury(std::move(notification), sReason, [this, nLease] {
        --m_queues.at(nLease).nLetters;
        deliverNext(nLease);
    });
}

/** @param onStored is called when the letter is stored, before the message is acknowledged */
void SinkDelivery::bury(Notification&& notification, const std::string& sReason,
                        std::function<void()> onStored) {
    ++m_counters.dead[sReason];
    Engine::Message letter{
        "vorn.dead." + m_settings.access.sHost, {}, std::move(notification.message.sContent)};
    for (auto& [sName, sValue] : notification.message.headers) {
        if (sName.starts_with("Vorn-"))
            letter.headers.emplace_back(sName, sValue);
    }
    const std::string sId(notification.message.header("Nats-Msg-Id"));
    letter.headers.emplace_back("Nats-Msg-Id", "dead." + sId);
    letter.headers.emplace_back("Vorn-Id", sId);
    letter.headers.emplace_back("Vorn-Subject", notification.message.sSubject);
    letter.headers.emplace_back("Vorn-Reason", sReason);
    letter.headers.emplace_back("Vorn-Tries", std::to_string(notification.nTries));
    m_deadLetters.add(std::move(letter), [this, nPosition = notification.nPosition,
                                          handler = std::move(onStored)](bool bStored) {
        if (!bStored)
            logLine(LogLevel::failure, "the engine refuses a dead letter, which is lost");
        if (handler)
            handler();
        m_reader.acknowledge(nPosition);
    });
}

void SinkDelivery::look() {
    try {
        std::vector<std::uint32_t> underWay;
        for (const auto& [nSink, queue] : m_queues) {
            if (queue.spDelivery)
                underWay.push_back(nSink);
        }
        for (const std::uint32_t nSink : underWay)
            lookAt(nSink);
        lookForEnded();
        for (auto& [nLease, queue] : m_queues) {
            if (isSlow(nLease, queue))
                buryNewest(nLease, queue);
        }
        if (const in_addr address = m_settings.redirectAddress(m_settings.access.sHost);
            address.s_addr != INADDR_ANY)
            m_owners.look(address);
    } catch (const std::system_error& error) { // a full disk, no descriptor; it is tried again
        logLine(LogLevel::failure, std::string("leases and ports cannot be looked after: ") + error.what());
    }
    if (!m_deadLetters.failure().empty())
        m_deadLetterLine.write(LogLevel::warning, "dead letters are not stored: " + m_deadLetters.failure());
    m_look = m_loop.after(cLookInterval, [this] { look(); });
}

/**
 * Gives up what nobody wants any more, unless its callback may run: that would not notice, and be called
 * again. Ends the lease of a client that has been away for too long.
 */
void SinkDelivery::lookAt(std::uint32_t nSink) {
    const auto found = m_queues.find(nSink);
    if (found == m_queues.end() || !found->second.spDelivery)
        return;
    LeaseQueue& queue = found->second;
    if (!isWanted(nSink, queue) && !queue.spDelivery->mayHaveArrived()) {
        queue.spDelivery->close();
        m_loop.discard(std::move(queue.spDelivery)); // an event of this turn may be on its way to it
        --m_nUnderWay;
        deliverNext(nSink);
        return;
    }
    const Lease* pLease = m_leases.find(nSink);
    if (pLease != nullptr && !pLease->isNamed() && queue.spDelivery->awayFor() > m_settings.patience)
        end(nSink);
}

void SinkDelivery::lookForEnded() {
    std::size_t nLooks = 0;
    auto entry = m_leases.all().upper_bound(m_nLastLooked);
    for (; entry != m_leases.all().end() && nLooks < cMostLooksAtOnce; ++nLooks) {
        const Lease& lease = (entry++)->second;
        m_nLastLooked = lease.nNumber;
        if (!lease.isNamed() && lease.process != 0 && startOfProcess(lease.process) != lease.nStart)
            end(lease.nNumber);
    }
    if (entry == m_leases.all().end())
        m_nLastLooked = 0;
}

void SinkDelivery::readNamed(std::uint32_t nLease) {
    if (m_settings.access.bFixedConsumer)
        return; // one consumer reads for all of them
    m_reader.add(consumerOf(nLease), "vorn.to." + m_settings.access.sHost + ".keep." + std::to_string(nLease),
                 cMostNamedHeld);
}

} // namespace VornRelay
