// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayTopics.h"

#include "TopicNames.h"

#include <VornException.h>

namespace VornRelay {

RelayTopics::RelayTopics(RelayLoop& loop, Engine& engine, const RelaySettings& settings) {
    for (const auto& [sTopic, sAddress] : settings.topics) {
        try {
            m_sources.push_back(
                std::make_unique<TopicSource>(loop, engine, settings.access.sHost, sTopic, sAddress));
        } catch (const VornSupport::VornException& error) {
            throw SettingsError("topic = " + sTopic + "=" + sAddress + ": " + error.getText());
        }
    }
    for (const auto& [sTopic, sHost] : settings.followed) {
        const std::string sNews = subjectOfNews(sHost, sTopic);
        engine.listenTo(sNews);
        m_mirrors[sNews] = std::make_unique<TopicMirror>(
            loop, engine, settings.sStateDirectory + "/topics/" + sHost, sHost, sTopic);
    }
}

void RelayTopics::setConnected(bool bConnected) {
    for (const auto& spSource : m_sources)
        spSource->setConnected(bConnected);
    for (const auto& [sNews, spMirror] : m_mirrors)
        spMirror->setConnected(bConnected);
}

void RelayTopics::told(const std::string& sSubject) {
    if (const auto found = m_mirrors.find(sSubject); found != m_mirrors.end())
        found->second->poll();
}

nlohmann::json RelayTopics::status() const {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& spSource : m_sources)
        list.push_back(spSource->status());
    for (const auto& [sNews, spMirror] : m_mirrors)
        list.push_back(spMirror->status());
    return list;
}

} // namespace VornRelay
