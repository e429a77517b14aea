// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_RELAYCOUNTERS_H
#define VORNRELAY_RELAYCOUNTERS_H

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace VornRelay {

/** Appends one value as Prometheus reads it. @param szType counter or gauge */
void printMetric(std::string& sText, const std::string& sName, const char* szType, const std::string& sValue);

/** How often something took how long. */
class Histogram {
public:
    void add(std::chrono::steady_clock::duration span);

    /** Appends lines as Prometheus reads them. */
    void print(std::string& sText, const std::string& sName) const;

private:
    static constexpr std::array<double, 8> cBounds{0.0005, 0.001, 0.005, 0.02, 0.1, 0.5, 2.5, 10};
    std::array<std::uint64_t, cBounds.size() + 1> m_counts{};
    double m_sum = 0;
};

/** What has happened since the start; the names are those of the metrics, after "vornnet_relay_". */
struct RelayCounters {
    std::uint64_t nAccepted = 0;               ///< notifications read from services
    std::uint64_t nPublished = 0;              ///< stored by the engine
    std::uint64_t nRefused = 0;                ///< answered with a reset
    std::uint64_t nBroken = 0;                 ///< cut short, thrown away
    std::uint64_t nDelivered = 0;              ///< consumed by a callback
    std::uint64_t nTries = 0;                  ///< connections to sinks
    std::uint64_t nResets = 0;                 ///< of these, ended by a reset: not consumed
    std::uint64_t nSkipped = 0;                ///< came again, and were not delivered again
    std::uint64_t nUnjournaled = 0;            ///< delivered, and could not be written to the journal
    std::uint64_t nMovedPorts = 0;             ///< TCP sinks that were found at another port
    std::map<std::string, std::uint64_t> dead; ///< dead letters by reason
    Histogram publishing;                      ///< from acceptance to the engine's answer
    Histogram delivering;                      ///< from arrival to the callback's end

    /** Appends all of them as Prometheus reads them. */
    void print(std::string& sText) const;
};

} // namespace VornRelay

#endif
