// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayTopics.h"

#include "TopicNames.h"

#include <VornException.h>

namespace VornRelay {

RelayTopics::RelayTopics(RelayLoop& loop, Engine& engine, const RelaySettings& settings)
    : m_sHost(settings.access.sHost) {
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

void RelayTopics::print(std::string& sText) const {
    std::string sEvents = "# TYPE vornnet_relay_topic_events gauge\n";
    std::string sFailing = "# TYPE vornnet_relay_topic_failing gauge\n";
    for (const nlohmann::json& topic : status()) {
        const std::string sLabel = "{topic=\"" + topic["topic"].get<std::string>() + "\",host=\"" +
                                   topic.value("host", m_sHost) + "\"} ";
        const auto position = VornNet::VornPosition::fromText(topic["position"].get<std::string>().c_str());
        sEvents += "vornnet_relay_topic_events" + sLabel + std::to_string(position.nNumber) + "\n";
        sFailing += "vornnet_relay_topic_failing" + sLabel +
                    (topic["failure"].get<std::string>().empty() ? "0" : "1") + "\n";
    }
    sText += sEvents + sFailing;
}

} // namespace VornRelay
