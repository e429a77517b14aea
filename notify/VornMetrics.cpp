// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornMetrics.h"

#include "VornDispatcher.h"
#include "VornPublisher.h"
#include "VornSteadySink.h"
#include "VornSubscriber.h"

#include <VornException.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string_view>

namespace VornNet {

namespace {

constexpr const char* cInvalidMetric = "VornMetrics::add: invalid metric.";
constexpr std::string_view cDigits = "0123456789";
constexpr std::string_view cLabelCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789";

bool isName(std::string_view sText, bool bColons) {
    return !sText.empty() && cDigits.find(sText.front()) == std::string_view::npos &&
           std::all_of(sText.begin(), sText.end(), [bColons](char character) {
               return cLabelCharacters.find(character) != std::string_view::npos ||
                      (bColons && character == ':');
           });
}

/** @return how many bytes the character at the beginning has; 0 when it is none. */
std::size_t lengthOfCharacter(std::string_view sText) {
    const auto first = static_cast<unsigned char>(sText.front());
    const std::size_t nLength = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (nLength == 0 || first > 0xF4 || nLength > sText.size())
        return 0;
    for (std::size_t i = 1; i < nLength; ++i) {
        if ((static_cast<unsigned char>(sText[i]) & 0xC0U) != 0x80)
            return 0;
    }
    const auto second = static_cast<unsigned char>(nLength > 1 ? sText[1] : 0);
    // Forms that are longer than they need be, surrogates, and what lies beyond the last character.
    const bool bNone = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                       (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
    return bNone ? 0 : nLength;
}

VornString escaped(std::string_view sText) {
    VornString sResult;
    while (!sText.empty()) {
        const std::size_t nLength = lengthOfCharacter(sText);
        if (nLength == 0)
            sResult += '?';
        else if (sText.front() == '\n')
            sResult += "\\n";
        else if (sText.front() == '\\' || sText.front() == '"')
            sResult.append(1, '\\').append(1, sText.front());
        else
            sResult.append(sText.substr(0, nLength));
        sText.remove_prefix(std::max<std::size_t>(nLength, 1));
    }
    return sResult;
}

VornString textOf(double dValue) {
    if (std::isnan(dValue))
        return "NaN";
    if (std::isinf(dValue))
        return dValue > 0 ? "+Inf" : "-Inf";
    std::array<char, 400> text; // the largest number has 309 digits
    const auto result =
        std::to_chars(text.data(), text.data() + text.size(), dValue, std::chars_format::fixed);
    return {text.data(), result.ptr};
}

} // namespace

/** The metrics in the order in which they were first added. */
class VORNNOTIFY_LOCAL VornMetrics::State {
public:
    void add(const VornString& sMetric, Type type, const VornString& sHelp, const Labels& labels,
             const VornString& sValue);
    VornString text() const;

private:
    struct Metric {
        VornString sName;
        Type type = Type::gauge;
        VornString sHelp;
        VornString sSamples; ///< as lines
    };

    std::vector<Metric> m_metrics;
};

void VornMetrics::State::add(const VornString& sMetric, Type type, const VornString& sHelp,
                             const Labels& labels, const VornString& sValue) {
    const bool bNames =
        isName(sMetric, true) && std::all_of(labels.begin(), labels.end(),
                                             [](const auto& label) { return isName(label.first, false); });
    const auto found = std::find_if(m_metrics.begin(), m_metrics.end(),
                                    [&sMetric](const Metric& metric) { return metric.sName == sMetric; });
    if (!bNames || (found != m_metrics.end() && found->type != type))
        throw VornException(cInvalidMetric, EINVAL);
    VornString sSample = sMetric + (type == Type::counter ? "_total" : "");
    for (std::size_t i = 0; i < labels.size(); ++i)
        sSample += (i == 0 ? "{" : ",") + labels[i].first + "=\"" + escaped(labels[i].second) + "\"";
    sSample += (labels.empty() ? " " : "} ") + sValue + "\n";
    if (found == m_metrics.end())
        m_metrics.push_back({sMetric, type, escaped(sHelp), sSample});
    else
        found->sSamples += sSample;
}

VornString VornMetrics::State::text() const {
    VornString sText;
    for (const Metric& metric : m_metrics) {
        const char* const type = metric.type == Type::counter ? " counter\n" : " gauge\n";
        sText += "# TYPE " + metric.sName + type;
        sText += "# HELP " + metric.sName + " " + metric.sHelp + "\n" + metric.sSamples;
    }
    return sText + "# EOF\n";
}

namespace {

/** Adds the numbers of one object, all of them or none. */
template <typename State>
class Rows {
public:
    Rows(State& state, const char* prefix, const VornString& sName)
        : m_state(state), m_new(state), m_sPrefix(prefix), m_labels{{"name", sName}} {}

    void counter(const char* name, std::uint64_t nValue, const char* help) {
        m_new.add(m_sPrefix + name, VornMetrics::Type::counter, help, m_labels, std::to_string(nValue));
    }

    void gauge(const char* name, std::uint64_t nValue, const char* help) {
        m_new.add(m_sPrefix + name, VornMetrics::Type::gauge, help, m_labels, std::to_string(nValue));
    }

    void finish() { m_state = std::move(m_new); }

private:
    State& m_state;
    State m_new;
    const VornString m_sPrefix;
    const VornMetrics::Labels m_labels;
};

} // namespace

VornMetrics::VornMetrics() : m_spState(std::make_unique<State>()) {}

VornMetrics::~VornMetrics() = default;

VornMetrics& VornMetrics::add(const VornString& sName, const VornDispatcher& dispatcher) {
    const VornDispatcher::Statistics sums = dispatcher.statistics();
    Rows rows(*m_spState, "vornnet_dispatcher_", sName);
    rows.counter("posted", sums.nPosted, "Notifications posted.");
    rows.counter("refused", sums.nRefused, "Posts that threw because the queue was full.");
    rows.counter("delivered", sums.nDelivered, "Notifications whose callback has returned.");
    rows.counter("sent", sums.nSent, "Datagrams handed to the network.");
    rows.counter("unread", sums.nUnread, "Notifications that a sink took and did not read to the end.");
    rows.counter("expired", sums.nExpired, "Notifications whose time limit ran out.");
    rows.counter("dropped", sums.nDropped, "Notifications pushed out of a full queue.");
    rows.counter("cancelled", sums.nCancelled, "Notifications cancelled.");
    rows.counter("stopped", sums.nStopped, "Notifications given up when the dispatcher stopped.");
    rows.counter("tries", sums.nTries, "Connections and datagrams attempted.");
    rows.counter("doubtful_tries", sums.nDoubtfulTries,
                 "Failed tries whose notification may have reached the callback.");
    rows.gauge("queued", sums.nQueued, "Notifications without outcome.");
    rows.gauge("queued_bytes", sums.nQueuedBytes, "Bytes of the notifications without outcome.");
    rows.gauge("addresses", sums.nAddresses, "Addresses with notifications without outcome.");
    rows.gauge("connections", sums.nConnections, "Connections open now.");
    rows.finish();
    return *this;
}

VornMetrics& VornMetrics::add(const VornString& sName, const VornPublisher& publisher) {
    const VornPublisher::Statistics sums = publisher.statistics();
    Rows rows(*m_spState, "vornnet_publisher_", sName);
    rows.counter("published", sums.nPublished, "Events published.");
    rows.counter("sent", sums.nSent, "Events sent, each subscriber counted.");
    rows.counter("sent_bytes", sums.nSentBytes, "Bytes sent to subscribers.");
    rows.counter("gaps", sums.nGaps, "Gaps that subscribers were told of.");
    rows.counter("missed", sums.nMissed, "Events that lay in gaps.");
    rows.counter("connections", sums.nConnections, "Connections accepted.");
    rows.counter("subscribed", sums.nSubscribed, "Subscriptions admitted.");
    rows.counter("refused", sums.nRefused, "Subscriptions refused.");
    rows.counter("timed_out", sums.nTimedOut, "Clients cut before they had subscribed.");
    rows.counter("left", sums.nLeft, "Subscribers that are no more.");
    rows.gauge("subscribers", sums.nSubscribers, "Subscribers now.");
    rows.gauge("behind", sums.nBehind, "Subscribers that have not been sent everything yet.");
    rows.finish();
    return *this;
}

VornMetrics& VornMetrics::add(const VornString& sName, const VornSteadySink& sink) {
    const VornSteadySink::Statistics sums = sink.statistics();
    Rows rows(*m_spState, "vornnet_steady_sink_", sName);
    rows.counter("delivered", sums.nDelivered, "Callbacks that have returned.");
    rows.counter("failed", sums.nFailed, "Callbacks that have thrown.");
    rows.counter("unknown", sums.nUnknown, "Notifications for an id that is not registered.");
    rows.counter("refused", sums.nRefused, "Senders that are not allowed.");
    rows.counter("timed_out", sums.nTimedOut, "Connections cut at the read limit.");
    rows.counter("too_long", sums.nTooLong, "Notifications above the limit.");
    rows.counter("incomplete", sums.nIncomplete, "Connections and datagrams that ended too early.");
    rows.gauge("waiting", sums.nWaiting, "Notifications read whose callback has not returned.");
    rows.gauge("connections", sums.nConnections, "Connections open now.");
    rows.finish();
    return *this;
}

VornMetrics& VornMetrics::add(const VornString& sName, const VornSubscriber& subscriber) {
    const VornSubscriber::Statistics sums = subscriber.statistics();
    const bool bConnected = subscriber.status().state == VornSubscriber::State::connected;
    Rows rows(*m_spState, "vornnet_subscriber_", sName);
    rows.counter("events", sums.nEvents, "Calls of the event handler.");
    rows.counter("failed", sums.nFailed, "Calls of the event handler that have thrown.");
    rows.counter("gaps", sums.nGaps, "Gaps told by the service.");
    rows.counter("missed", sums.nMissed, "Events in gaps, where that is known.");
    rows.counter("repeated", sums.nRepeated, "Events left out because they had come before.");
    rows.counter("subscriptions", sums.nSubscriptions, "How often it was connected.");
    rows.counter("tries", sums.nTries, "Connections attempted.");
    rows.gauge("newest", sums.nNewest, "The newest number that the service has told of.");
    rows.gauge("connected", bConnected ? 1 : 0, "1 while it is subscribed.");
    rows.finish();
    return *this;
}

VornMetrics& VornMetrics::add(const VornString& sMetric, Type type, const VornString& sHelp,
                              const Labels& labels, double dValue) {
    m_spState->add(sMetric, type, sHelp, labels, textOf(dValue));
    return *this;
}

VornString VornMetrics::text() const {
    return m_spState->text();
}

} // namespace VornNet
