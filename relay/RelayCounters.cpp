// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayCounters.h"

#include <cstdio>
#include <utility>

namespace VornRelay {

namespace {

std::string textOf(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

} // namespace

void printMetric(std::string& sText, const std::string& sName, const char* szType,
                 const std::string& sValue) {
    sText.append("# TYPE vornnet_relay_").append(sName).append(" ").append(szType).append("\n");
    sText.append("vornnet_relay_").append(sName).append(" ").append(sValue).append("\n");
}

void Histogram::add(std::chrono::steady_clock::duration span) {
    const double seconds = std::chrono::duration<double>(span).count();
    std::size_t i = 0;
    while (i < cBounds.size() && seconds > cBounds[i])
        ++i;
    ++m_counts[i];
    m_sum += seconds;
}

void Histogram::print(std::string& sText, const std::string& sName) const {
    sText += "# TYPE " + sName + " histogram\n";
    std::uint64_t nSum = 0;
    for (std::size_t i = 0; i < m_counts.size(); ++i) {
        nSum += m_counts[i];
        const std::string sBound = i < cBounds.size() ? textOf(cBounds[i]) : "+Inf";
        sText += sName + "_bucket{le=\"" + sBound + "\"} " + std::to_string(nSum) + "\n";
    }
    sText += sName + "_sum " + textOf(m_sum) + "\n" + sName + "_count " + std::to_string(nSum) + "\n";
}

void RelayCounters::print(std::string& sText) const {
    const std::pair<const char*, std::uint64_t> all[] = {
        {"accepted", nAccepted},     {"published", nPublished}, {"refused", nRefused},
        {"broken", nBroken},         {"delivered", nDelivered}, {"tries", nTries},
        {"resets", nResets},         {"skipped", nSkipped},     {"unjournaled", nUnjournaled},
        {"moved_ports", nMovedPorts}};
    for (const auto& [szName, nValue] : all)
        printMetric(sText, std::string(szName) + "_total", "counter", std::to_string(nValue));
    sText += "# TYPE vornnet_relay_dead_total counter\n";
    for (const auto& [sReason, nValue] : dead)
        sText += "vornnet_relay_dead_total{reason=\"" + sReason + "\"} " + std::to_string(nValue) + "\n";
    publishing.print(sText, "vornnet_relay_publish_seconds");
    delivering.print(sText, "vornnet_relay_delivery_seconds");
}

} // namespace VornRelay
