// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayTopics.h"

#include "TopicNames.h"

#include <VornException.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <stdexcept>
#include <utility>

namespace VornRelay {

namespace {

/** @return why it cannot be done; empty when it was. */
std::string failureOf(const std::function<void()>& action) {
    try {
        action();
        return {};
    } catch (const VornSupport::VornException& error) {
        return error.getText();
    } catch (const std::exception& error) {
        return error.what();
    }
}

} // namespace

RelayTopics::RelayTopics(RelayLoop& loop, Engine& engine, const RelaySettings& settings)
    : m_loop(loop), m_engine(engine), m_sHost(settings.access.sHost),
      m_sDirectory(settings.sStateDirectory + "/topics/") {
    if (const std::vector<std::string> failures = change(settings); !failures.empty())
        throw std::runtime_error(failures.front());
}

std::vector<std::string> RelayTopics::change(const RelaySettings& settings) {
    close(settings);
    std::vector<std::string> failures;
    const auto attempt = [&](const std::string& sTopic, const std::function<void()>& add) {
        if (const std::string sWhy = failureOf(add); !sWhy.empty())
            failures.push_back("topic " + sTopic + " cannot be opened: " + sWhy);
    };
    for (const auto& [sTopic, sAddress] : settings.topics)
        attempt(sTopic, [&] { addSource(sTopic, sAddress); });
    for (const auto& [sTopic, sHost] : settings.followed)
        attempt(sTopic + "@" + sHost, [&] { addMirror(sTopic, sHost); });
    return failures;
}

void RelayTopics::setConnected(bool bConnected) {
    m_bConnected = bConnected;
    for (const auto& [sTopic, spSource] : m_sources)
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
    for (const auto& [sTopic, spSource] : m_sources)
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

/** Closes what is not wanted any more. */
void RelayTopics::close(const RelaySettings& settings) {
    for (auto entry = m_sources.begin(); entry != m_sources.end();) {
        const auto wanted = settings.topics.find(entry->first);
        const auto current = entry++;
        if (wanted != settings.topics.end() && wanted->second == current->second->address())
            continue;
        current->second->setConnected(false);
        m_loop.discard(std::move(current->second)); // an event of this turn may be on its way to it
        m_sources.erase(current);
    }
    std::erase_if(m_mirrors, [&](const auto& entry) {
        if (std::any_of(settings.followed.begin(), settings.followed.end(), [&](const auto& followed) {
                return subjectOfNews(followed.second, followed.first) == entry.first;
            }))
            return false;
        m_engine.ignore(entry.first);
        return true;
    });
}

void RelayTopics::addSource(const std::string& sTopic, const std::string& sAddress) {
    if (m_sources.contains(sTopic))
        return;
    auto spSource = std::make_unique<TopicSource>(m_loop, m_engine, m_sHost, sTopic, sAddress);
    spSource->setConnected(m_bConnected);
    m_sources[sTopic] = std::move(spSource);
}

void RelayTopics::addMirror(const std::string& sTopic, const std::string& sHost) {
    const std::string sNews = subjectOfNews(sHost, sTopic);
    if (m_mirrors.contains(sNews))
        return;
    auto spMirror = std::make_unique<TopicMirror>(m_loop, m_engine, m_sDirectory + sHost, sHost, sTopic);
    m_engine.listenTo(sNews);
    spMirror->setConnected(m_bConnected);
    m_mirrors[sNews] = std::move(spMirror);
}

} // namespace VornRelay
