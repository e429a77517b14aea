// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_RELAYTOPICS_H
#define VORNRELAY_RELAYTOPICS_H

#include "RelaySettings.h"
#include "TopicMirror.h"
#include "TopicSource.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace VornRelay {

/**
 * All topics of a relay: those of this host's services, and those of other hosts that are followed here.
 *
 * Thread-safety: none. Blocking: as TopicMirror. Ownership: loop and engine must outlive it. Signals: none
 * raised. Errors: SettingsError from the constructor for an address that is none, std::system_error.
 */
class RelayTopics {
public:
    RelayTopics(RelayLoop& loop, Engine& engine, const RelaySettings& settings);

    void setConnected(bool bConnected);

    /** Something was told on that subject. */
    void told(const std::string& sSubject);

    nlohmann::json status() const;

    /** Appends where each topic is and whether something keeps it, as Prometheus reads it. */
    void print(std::string& sText) const;

private:
    const std::string m_sHost;
    std::vector<std::unique_ptr<TopicSource>> m_sources;
    std::map<std::string, std::unique_ptr<TopicMirror>> m_mirrors; // by the subject of its news
};

} // namespace VornRelay

#endif
