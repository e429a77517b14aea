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
 * raised. Errors: std::runtime_error from the constructor for a topic that cannot be opened; later it is
 * told.
 */
class RelayTopics {
public:
    RelayTopics(RelayLoop& loop, Engine& engine, const RelaySettings& settings);

    /** Takes what the configuration says now. What it does not have any more is closed; the others are not
     * touched. @return what cannot be opened, and why */
    std::vector<std::string> change(const RelaySettings& settings);

    void setConnected(bool bConnected);

    /** Something was told on that subject. */
    void told(const std::string& sSubject);

    nlohmann::json status() const;

    /** Appends where each topic is and whether something keeps it, as Prometheus reads it. */
    void print(std::string& sText) const;

private:
    void close(const RelaySettings& settings);
    void addSource(const std::string& sTopic, const std::string& sAddress);
    void addMirror(const std::string& sTopic, const std::string& sHost);

    RelayLoop& m_loop;
    Engine& m_engine;
    const std::string m_sHost;
    const std::string m_sDirectory; // of histories
    bool m_bConnected = false;
    std::map<std::string, std::unique_ptr<TopicSource>> m_sources; // by topic
    std::map<std::string, std::unique_ptr<TopicMirror>> m_mirrors; // by the subject of its news
};

} // namespace VornRelay

#endif
