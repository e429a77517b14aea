// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RemoteHost.h"

#include "LeaseTable.h"

#include <cstdio>
#include <ctime>
#include <utility>

namespace VornRelay {

namespace {

constexpr std::size_t cRoomForHeaders = 4096;
constexpr std::size_t cUsualContent = 1024 * 1024;
constexpr std::size_t cMostGone = 1'000'000;
constexpr std::chrono::seconds cAbsentLimit{30}; // longer than an election takes

std::uint32_t leaseIn(const std::string& sExchange) {
    std::uint32_t nLease = 0;
    for (int i = 0; i < 4; ++i)
        nLease = nLease << 8 | static_cast<unsigned char>(sExchange[static_cast<std::size_t>(i)]);
    return nLease;
}

std::string timeText() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto nMicroseconds = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    const std::time_t nSeconds = nMicroseconds / 1'000'000;
    std::tm parts{};
    ::gmtime_r(&nSeconds, &parts);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
    char text[48];
    std::snprintf(text, sizeof text, "%s.%06lldZ", date, static_cast<long long>(nMicroseconds % 1'000'000));
    return text;
}

} // namespace

std::string subjectOfLease(const std::string& sHost, std::uint32_t nLease) {
    const char* szKind = LeaseTable::isNamedNumber(nLease) ? ".keep." : ".sink.lease.";
    return "vorn.to." + sHost + szKind + std::to_string(nLease);
}

std::string subjectOfPort(const std::string& sHost, std::uint16_t nPort) {
    return "vorn.to." + sHost + ".sink.tcp." + std::to_string(nPort);
}

Engine::Message messageTo(const std::string& sSubject, const std::string& sSource, const std::string& sId,
                          std::string&& sExchange) {
    return {sSubject,
            {{"Nats-Msg-Id", sId}, {"Vorn-From", sSource}, {"Vorn-Time", timeText()}, {"Vorn-Version", "1"}},
            std::move(sExchange)};
}

RemoteHost::RemoteHost(RelayLoop& loop, Engine& engine, const std::string& sSource, const std::string& sHost,
                       std::size_t nWindow, NotificationNumber& number, RelayCounters& counters)
    : m_engine(engine), m_sSource(sSource), m_sHost(sHost), m_number(number), m_counters(counters),
      m_queue(loop, engine, {nWindow, cAbsentLimit}, [this](Engine::Message& message) { stamp(message); }),
      m_pipe(loop, "relay-" + sHost, *this) {}

void RemoteHost::complain() {
    if (!m_queue.failure().empty())
        m_failureLine.write(LogLevel::warning,
                            "what goes to " + m_sHost + " is not stored: " + m_queue.failure());
}

void RemoteHost::admit(std::size_t nMost) {
    const bool bOpen = m_pipe.isOpen();
    if (bOpen && m_queue.bytes() > nMost) {
        m_pipe.close();
        logLine(LogLevel::warning, "too much waits for " + m_sHost + ": services are refused");
    } else if (!bOpen && m_queue.bytes() <= nMost / 2) {
        m_pipe.open();
        logLine(LogLevel::change, "services that notify " + m_sHost + " are accepted again");
    }
}

void RemoteHost::setGone(std::uint32_t nLease) {
    if (m_gone.size() < cMostGone)
        m_gone.insert(nLease);
}

void RemoteHost::accepted(std::string&& sExchange, std::uint16_t nPort, ServicePipe::DoneHandler onDone) {
    const std::uint32_t nLease = leaseIn(sExchange);
    if (nPort == 0 && (nLease == 0 || m_gone.contains(nLease))) {
        ++m_counters.nRefused;
        onDone(false);
        return;
    }
    ++m_counters.nAccepted;
    const std::string sSubject = nPort == 0 ? subjectOfLease(m_sHost, nLease) : subjectOfPort(m_sHost, nPort);
    m_queue.add(messageTo(sSubject, m_sSource, "", std::move(sExchange)),
                [this, accepted = RelayLoop::Clock::now(), handler = std::move(onDone)](bool bStored) {
                    ++(bStored ? m_counters.nPublished : m_counters.nRefused);
                    m_counters.publishing.add(RelayLoop::Clock::now() - accepted);
                    handler(bStored);
                });
}

void RemoteHost::tooLong() {
    ++m_counters.nRefused;
    m_tooLongLine.write(LogLevel::warning, "a notification for " + m_sHost + " is longer than " +
                                               std::to_string(mostContent()) + " bytes and was refused");
}

std::size_t RemoteHost::mostContent() const {
    const std::size_t nMost = m_engine.mostContent();
    return (nMost > 2 * cRoomForHeaders ? nMost : cUsualContent) - cRoomForHeaders;
}

void RemoteHost::stamp(Engine::Message& message) {
    ++m_number.nCount;
    message.headers.front().second = idOf(m_sSource, m_number);
}

} // namespace VornRelay
