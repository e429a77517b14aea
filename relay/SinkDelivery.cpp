// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkDelivery.h"

#include <PipeListener.h>
#include <VornConnection.h>
#include <VornException.h>
#include <VornProxyDependent.h>
#include <VornSmartPointer.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

namespace VornRelay {

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using VornNet::VornDispatcher;
using Outcome = VornDispatcher::Outcome;

constexpr std::size_t cHandleSize = 8;
constexpr std::size_t cMostNamedHeld = 256;
constexpr std::string_view cPipe = "pipe:";
constexpr std::string_view cVersion = "1";
constexpr milliseconds cLookInterval{250};
constexpr milliseconds cSuspicious{250}; // a delivery that takes longer is looked at
constexpr milliseconds cTimeToEnd{100};  // within which a killed process has closed its sockets
constexpr std::size_t cMostLooksAtOnce = 200;

/** Sends content that was read elsewhere. */
class StoredContent : public VornNet::VornProxyDependent {
public:
    StoredContent(const Lease& lease, std::string_view sContent)
        : VornProxyDependent(lease.sAddress.c_str(), lease.nHandle), m_sContent(sContent) {}

    void addContent(VornNet::VornConnection& connection, const VornSupport::VornNotification&) override {
        long nError = 0;
        if (!m_sContent.empty())
            connection.transfer(m_sContent.data(), static_cast<long>(m_sContent.size()), &nError);
    }

private:
    const std::string_view m_sContent;
};

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

bool isPipeAlive(const std::string& sAddress) {
    return VornNet::PipeListener::isAlive(sAddress.substr(cPipe.size()).c_str());
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
    VornDispatcher::Options options;
    options.sName = "relay";
    options.terms.timeLimit = hours(24 * 365); // whether to wait on is decided here
    options.nByteLimit = std::size_t{4} << 30;
    options.longestPause = milliseconds(100);
    options.stopLimit = milliseconds(0);
    options.onResult = [this](const VornDispatcher::Result& result) {
        m_loop.post([this, result] { finished(result); });
    };
    m_spDispatcher = std::make_unique<VornDispatcher>(options);
    look();
}

SinkDelivery::~SinkDelivery() {
    m_loop.cancel(m_look);
    m_spDispatcher.reset();
    for (const auto& [nLease, queue] : m_queues)
        m_loop.cancel(queue.judge);
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
    result.bAway = queue.awaySince.has_value() || (queue.spPortDelivery && queue.spPortDelivery->isAway());
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
    const Lease* pLease = m_leases.find(nLease);
    const auto found = m_queues.find(nLease);
    if (found == m_queues.end()) {
        if (!isSink(nLease))
            m_journal.forget(nLease);
        return;
    }
    LeaseQueue& queue = found->second;
    if (queue.nTicket != 0 || queue.bBurying || queue.spPortDelivery ||
        (queue.judge != 0 && pLease != nullptr))
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
        if (!m_bStopped && pLease != nullptr)
            post(*pLease, queue);
        else if (!m_bStopped)
            postToPort(static_cast<std::uint16_t>(nLease), queue);
        return;
    }
    m_loop.cancel(std::exchange(queue.judge, 0));
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

void SinkDelivery::post(const Lease& lease, LeaseQueue& queue) {
    const std::string_view sContent = queue.waiting.front().message.sContent;
    const VornSupport::VornSmartPointer<StoredContent> spProxy =
        new StoredContent(lease, sContent.substr(cHandleSize));
    queue.started = Clock::now();
    if (std::exchange(queue.sAddress, lease.sAddress) != lease.sAddress)
        queue.awaySince.reset();
    try {
        queue.nTicket = m_spDispatcher->post(*spProxy, VornSupport::VornNotification(0));
        m_underWay[queue.nTicket] = lease.nNumber;
    } catch (const VornSupport::VornException& error) {
        logLine(LogLevel::failure, std::string("a delivery cannot begin: ") + error.getText().c_str());
        queue.judge = m_loop.after(cTimeToEnd, [this, nLease = lease.nNumber] {
            m_queues[nLease].judge = 0;
            deliverNext(nLease);
        });
    }
}

void SinkDelivery::postToPort(std::uint16_t nPort, LeaseQueue& queue) {
    ++m_nPortsUnderWay;
    queue.spPortDelivery = std::make_unique<PortDelivery>(
        m_loop, m_owners, m_settings.redirectAddress(m_settings.access.sHost), nPort,
        queue.waiting.front().message.sContent, m_settings.patience,
        [this, nPort](const PortDelivery::Result& result) {
            m_loop.post([this, nPort, result] { finishedAtPort(nPort, result); });
        });
}

void SinkDelivery::finishedAtPort(std::uint16_t nPort, const PortDelivery::Result& result) {
    LeaseQueue& queue = m_queues.at(nPort);
    if (!queue.spPortDelivery)
        return; // it was given up just before
    queue.spPortDelivery.reset();
    --m_nPortsUnderWay;
    queue.waiting.front().nTries += result.nTries;
    m_counters.nTries += result.nTries;
    m_counters.nResets += result.nResets;
    m_counters.nMovedPorts += result.nMoves;
    switch (result.outcome) {
    case PortDelivery::Outcome::delivered:
        consumed(nPort, queue);
        break;
    case PortDelivery::Outcome::refused:
        buryFirst(nPort, queue);
        return;
    case PortDelivery::Outcome::gone:
        for (Notification& notification : queue.waiting)
            buryLater(nPort, queue, std::move(notification), "gone");
        queue.waiting.clear();
        break;
    }
    deliverNext(nPort);
}

void SinkDelivery::finished(const VornDispatcher::Result& result) {
    const auto underWay = m_underWay.extract(result.nTicket);
    if (underWay.empty())
        return;
    const std::uint32_t nLease = underWay.mapped();
    LeaseQueue& queue = m_queues.at(nLease);
    queue.nTicket = 0;
    queue.waiting.front().nTries += result.nTries;
    m_counters.nTries += result.nTries;
    switch (result.outcome) {
    case Outcome::delivered:
    case Outcome::sent:
        consumed(nLease, queue);
        break;
    case Outcome::unread:
        ++m_counters.nResets;
        queue.judge = m_loop.after(cTimeToEnd, [this, nLease] { judge(nLease); });
        return;
    default:
        break; // it is offered again, or finds that its lease has ended
    }
    deliverNext(nLease);
}

void SinkDelivery::consumed(std::uint32_t nLease, LeaseQueue& queue) {
    const Notification& first = queue.waiting.front();
    queue.awaySince.reset();
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

/** Was the callback content with less, or has the process been killed? In the latter case nobody listens. */
void SinkDelivery::judge(std::uint32_t nLease) {
    LeaseQueue& queue = m_queues.at(nLease);
    queue.judge = 0;
    if (m_leases.find(nLease) != nullptr && isPipeAlive(queue.sAddress))
        buryFirst(nLease, queue);
    else
        deliverNext(nLease);
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
        for (const auto& [nTicket, nLease] : m_underWay) {
            if (Clock::now() - m_queues.at(nLease).started > cSuspicious)
                lookAt(nLease);
        }
        lookForEnded();
        for (auto& [nLease, queue] : m_queues) {
            if (isSlow(nLease, queue))
                buryNewest(nLease, queue);
        }
        if (m_bStopped)
            giveUpPorts();
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
 * Finds out whether a client is away. A delivery that nobody wants any more is only given up when it is: a
 * callback that runs would not notice, and be called again. A plain sink is away for a moment after each
 * callback, so it has to be away twice.
 */
void SinkDelivery::lookAt(std::uint32_t nLease) {
    const auto found = m_queues.find(nLease);
    if (found == m_queues.end() || found->second.nTicket == 0)
        return;
    LeaseQueue& queue = found->second;
    if (isPipeAlive(queue.sAddress)) {
        queue.awaySince.reset();
        return;
    }
    const bool bWasAway = queue.awaySince.has_value();
    if (!bWasAway)
        queue.awaySince = Clock::now();
    const Lease* pLease = m_leases.find(nLease);
    if (m_bStopped || pLease == nullptr || pLease->sAddress != queue.sAddress) {
        if (bWasAway)
            m_spDispatcher->cancel(queue.sAddress.c_str());
        return;
    }
    const bool bHasEnded = pLease->process != 0 && startOfProcess(pLease->process) != pLease->nStart;
    if (!pLease->isNamed() && (bHasEnded || Clock::now() - *queue.awaySince > m_settings.patience))
        end(nLease);
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

void SinkDelivery::giveUpPorts() {
    for (auto& [nSink, queue] : m_queues) {
        if (!queue.spPortDelivery || !queue.spPortDelivery->isAway())
            continue;
        queue.spPortDelivery.reset();
        --m_nPortsUnderWay;
    }
}

void SinkDelivery::readNamed(std::uint32_t nLease) {
    if (m_settings.access.bFixedConsumer)
        return; // one consumer reads for all of them
    m_reader.add(consumerOf(nLease), "vorn.to." + m_settings.access.sHost + ".keep." + std::to_string(nLease),
                 cMostNamedHeld);
}

} // namespace VornRelay
