// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "NatsAdministration.h"

#include "ForwardSubject.h"
#include "RelaySettings.h"
#include "StoredText.h"
#include "TopicNames.h"

#include <algorithm>
#include <string_view>

namespace VornRelay {

namespace {

constexpr std::chrono::milliseconds cLimit{5000};
constexpr const char* cDeadStream = "VORN_DEAD";
constexpr std::string_view cStreamPrefix = "VORN_TO_";
constexpr int cStreamMissing = 10059;
constexpr int cStreamIsDifferent = 10058;
constexpr int cMessageMissing = 10037;
constexpr std::int64_t cSecond = 1'000'000'000; // nanoseconds

/** Puts what is told into a stream's settings. */
void apply(const NatsAdministration::Limits& limits, NatsAdministration::Json& config) {
    const std::pair<const char*, std::int64_t> all[] = {{"max_bytes", limits.nBytes},
                                                        {"max_msgs", limits.nMessages},
                                                        {"max_age", limits.nSeconds * cSecond},
                                                        {"num_replicas", limits.nReplicas}};
    for (const auto& [szName, nValue] : all) {
        if (nValue != 0)
            config[szName] = nValue;
    }
}

} // namespace

std::string DeadLetter::header(const std::string& sName) const {
    for (const auto& [sKey, sValue] : headers) {
        if (sKey == sName)
            return sValue;
    }
    return "";
}

NatsAdministration::NatsAdministration(const EngineAccess& access) {
    const NatsPointer<natsOptions> options = optionsFor(access, cLimit);
    natsConnection* created = nullptr;
    if (const natsStatus status = natsConnection_Connect(&created, options.get()); status != NATS_OK)
        throw AdministrationError(textOf(status), 0);
    m_spConnection.reset(created);
}

void NatsAdministration::addHost(const std::string& sHost, const Limits& limits) {
    const std::string sStream = std::string(cStreamPrefix) + sHost;
    Json config = {{"name", sStream},
                   {"subjects", {"vorn.to." + sHost + ".>"}},
                   {"storage", "file"},
                   {"retention", "workqueue"},
                   {"discard", "new"},
                   {"num_replicas", 1},
                   {"max_bytes", std::int64_t{1} << 30},
                   {"max_msgs", 1 << 20},
                   {"max_age", 7 * 24 * 3600 * cSecond},
                   {"duplicate_window", 120 * cSecond}};
    config = addStream(std::move(config), limits);
    if (limits.bTopics)
        addStream({{"name", streamOfTopics(sHost)},
                   {"subjects", {subjectOfTopic(sHost, ">")}},
                   {"storage", "file"},
                   {"retention", "limits"},
                   {"discard", "old"},
                   {"num_replicas", config["num_replicas"]},
                   {"max_bytes", config["max_bytes"]},
                   {"max_msgs", config["max_msgs"]},
                   {"max_age", config["max_age"]}},
                  limits);
    if (limits.bFixedConsumer) {
        addConsumer(sHost, "relay", "sink", limits);
        addConsumer(sHost, "keep", "keep", limits);
    }
    try {
        request(std::string("$JS.API.STREAM.INFO.") + cDeadStream);
    } catch (const AdministrationError& error) {
        if (error.code() != cStreamMissing)
            throw;
        request(std::string("$JS.API.STREAM.CREATE.") + cDeadStream,
                {{"name", cDeadStream},
                 {"subjects", {"vorn.dead.*"}},
                 {"storage", "file"},
                 {"retention", "limits"},
                 {"discard", "old"},
                 {"num_replicas", config["num_replicas"]},
                 {"max_bytes", config["max_bytes"]},
                 {"max_age", 30 * 24 * 3600 * cSecond}});
    }
}

void NatsAdministration::removeHost(const std::string& sHost) {
    request("$JS.API.STREAM.DELETE." + std::string(cStreamPrefix) + sHost);
    try {
        request("$JS.API.STREAM.DELETE." + streamOfTopics(sHost));
    } catch (const AdministrationError& error) {
        if (error.code() != cStreamMissing)
            throw;
    }
}

NatsAdministration::Json NatsAdministration::hosts() {
    Json list = Json::array();
    for (std::size_t nOffset = 0;;) {
        const Json answer = request("$JS.API.STREAM.LIST", {{"offset", nOffset}});
        const Json streams = answer.value("streams", Json::array());
        if (streams.empty())
            return list;
        nOffset += streams.size();
        for (const Json& stream : streams) {
            const Json& config = stream["config"];
            const std::string sName = config.value("name", "");
            if (sName.starts_with(cStreamPrefix))
                list.push_back({{"host", sName.substr(cStreamPrefix.size())},
                                {"messages", stream["state"].value("messages", std::uint64_t{0})},
                                {"bytes", stream["state"].value("bytes", std::uint64_t{0})},
                                {"limit", config.value("max_bytes", std::int64_t{0})},
                                {"replicas", config.value("num_replicas", 1)}});
        }
        if (nOffset >= answer.value("total", std::size_t{0}))
            return list;
    }
}

std::vector<DeadLetter> NatsAdministration::deadLetters() {
    const Json state = request(std::string("$JS.API.STREAM.INFO.") + cDeadStream)["state"];
    std::vector<DeadLetter> letters;
    if (state.value("messages", 0) == 0)
        return letters;
    for (auto nPosition = state.value("first_seq", std::uint64_t{1});
         nPosition <= state.value("last_seq", std::uint64_t{0}); ++nPosition) {
        try {
            letters.push_back(deadLetter(nPosition));
        } catch (const AdministrationError& error) {
            if (error.code() != cMessageMissing)
                throw; // one in between that was dropped
        }
    }
    return letters;
}

DeadLetter NatsAdministration::deadLetter(std::uint64_t nPosition) {
    const Json message =
        request(std::string("$JS.API.STREAM.MSG.GET.") + cDeadStream, {{"seq", nPosition}})["message"];
    const std::string sSubject = message.value("subject", "");
    return {nPosition, sSubject.substr(sSubject.rfind('.') + 1), message.value("time", ""),
            headersIn(decodedBase64(message.value("hdrs", ""))), decodedBase64(message.value("data", ""))};
}

void NatsAdministration::dropDeadLetter(std::uint64_t nPosition) {
    request(std::string("$JS.API.STREAM.MSG.DELETE.") + cDeadStream, {{"seq", nPosition}});
}

void NatsAdministration::dropDeadLetters() {
    request(std::string("$JS.API.STREAM.PURGE.") + cDeadStream);
}

bool NatsAdministration::publish(const Engine::Message& message) {
    natsMsg* created = nullptr;
    natsMsg_Create(&created, message.sSubject.c_str(), nullptr, message.sContent.data(),
                   static_cast<int>(message.sContent.size()));
    const NatsPointer<natsMsg> spMessage(created);
    for (const auto& [sName, sValue] : message.headers)
        natsMsgHeader_Set(created, sName.c_str(), sValue.c_str());
    return !ask(created).value("duplicate", false);
}

NatsAdministration::Json NatsAdministration::request(const std::string& sSubject, const Json& content) {
    const std::string sContent = content.is_null() ? "" : content.dump();
    natsMsg* created = nullptr;
    natsMsg_Create(&created, sSubject.c_str(), nullptr, sContent.data(), static_cast<int>(sContent.size()));
    return ask(NatsPointer<natsMsg>(created).get());
}

bool NatsAdministration::mayListenTo(const std::string& sSubject) {
    natsSubscription* created = nullptr;
    natsConnection_SubscribeSync(&created, m_spConnection.get(), sSubject.c_str());
    const NatsPointer<natsSubscription> spSubscription(created);
    return !wasDenied(sSubject);
}

bool NatsAdministration::mayPublishTo(const std::string& sSubject) {
    natsMsg* created = nullptr;
    natsMsg_Create(&created, sSubject.c_str(), nullptr, "", 0);
    const NatsPointer<natsMsg> spMessage(created);
    natsMsgHeader_Set(created, "Nats-Expected-Stream", "VORN_NONE");
    natsConnection_PublishMsg(m_spConnection.get(), created);
    return !wasDenied(sSubject);
}

NatsAdministration::Json NatsAdministration::ask(natsMsg* message) {
    const std::string sSubject = natsMsg_GetSubject(message);
    natsMsg* received = nullptr;
    const natsStatus status =
        natsConnection_RequestMsg(&received, m_spConnection.get(), message, cLimit.count());
    if (status != NATS_OK)
        throw AdministrationError(sSubject + ": " + textOf(status), 0);
    const NatsPointer<natsMsg> spReply(received);
    const Json reply =
        Json::parse(natsMsg_GetData(received), natsMsg_GetData(received) + natsMsg_GetDataLength(received),
                    nullptr, false);
    if (!reply.is_object())
        throw AdministrationError(sSubject + ": not an answer of JetStream", 0);
    if (reply.contains("error"))
        throw AdministrationError(reply["error"].value("description", "refused"),
                                  reply["error"].value("err_code", 0));
    return reply;
}

bool NatsAdministration::wasDenied(const std::string& sSubject) {
    natsConnection_FlushTimeout(m_spConnection.get(), cLimit.count());
    const char* szError = nullptr;
    natsConnection_GetLastError(m_spConnection.get(), &szError);
    const std::string_view sError = szError == nullptr ? "" : szError;
    return sError.find("ermissions") != std::string_view::npos &&
           sError.find(sSubject) != std::string_view::npos;
}

/** @return its settings. What is told of one that is there is changed, and the rest is left. */
NatsAdministration::Json NatsAdministration::addStream(Json config, const Limits& limits) {
    const std::string sStream = config["name"];
    apply(limits, config);
    try {
        request("$JS.API.STREAM.CREATE." + sStream, config);
    } catch (const AdministrationError& error) {
        if (error.code() != cStreamIsDifferent)
            throw;
        config = request("$JS.API.STREAM.INFO." + sStream)["config"];
        apply(limits, config);
        request("$JS.API.STREAM.UPDATE." + sStream, config);
    }
    return config;
}

void NatsAdministration::addConsumer(const std::string& sHost, const std::string& sConsumer,
                                     const std::string& sKind, const Limits& limits) {
    const std::string sStream = std::string(cStreamPrefix) + sHost;
    const Json config = {{"durable_name", sConsumer},
                         {"ack_policy", "explicit"},
                         {"deliver_policy", "all"},
                         {"replay_policy", "instant"},
                         {"ack_wait", limits.nAckWait * cSecond},
                         {"max_ack_pending", -1},
                         {"filter_subject", "vorn.to." + sHost + "." + sKind + ".>"}};
    request("$JS.API.CONSUMER.DURABLE.CREATE." + sStream + "." + sConsumer,
            {{"stream_name", sStream}, {"config", config}});
}

std::string permissionsOf(const std::string& sHost, const std::vector<std::string>& sendTo,
                          bool bFixedConsumer, const HostRights& rights) {
    std::vector<std::string> publish{"$JS.API.INFO"};
    for (const std::string& sTo : sendTo)
        publish.push_back("vorn.to." + (sTo == "*" ? sTo : hostToken(sTo)) + ".>");
    if (std::find(sendTo.begin(), sendTo.end(), "*") != sendTo.end())
        publish.emplace_back("$JS.API.STREAM.NAMES");
    const std::string sToken = hostToken(sHost);
    const std::string sStream = std::string(cStreamPrefix) + sToken;
    std::vector<std::string> calls{"INFO", "MSG.NEXT"};
    if (!bFixedConsumer)
        calls.insert(calls.begin(), {"DURABLE.CREATE", "DELETE"});
    for (const std::string& sCall : calls)
        publish.push_back("$JS.API.CONSUMER." + sCall + "." + sStream + ".*");
    publish.push_back("$JS.API.STREAM.INFO." + sStream);
    publish.push_back("$JS.ACK." + sStream + ".>");
    // Newer servers put a domain and an account in between. So many tokens no other acknowledgement has: in
    // the shorter form another host's stream could be named.
    publish.push_back("$JS.ACK.*.*." + sStream + ".*.*.*.*.*.>");
    publish.push_back("vorn.dead." + sToken);
    publish.push_back("vorn.gone." + sToken);
    if (rights.bTopics) {
        publish.push_back(subjectOfTopic(sToken, ">"));
        publish.push_back(subjectOfNews(sToken, ">"));
        publish.push_back("$JS.API.STREAM.MSG.GET." + streamOfTopics(sToken));
    }
    std::vector<std::string> subscribe{"_INBOX_" + sToken + ".>", "vorn.gone.*"};
    for (const std::string& sFollowed : rights.follow) {
        publish.push_back("$JS.API.STREAM.MSG.GET." + streamOfTopics(hostToken(sFollowed)));
        subscribe.push_back(subjectOfNews(hostToken(sFollowed), ">"));
    }
    if (rights.bOffer) {
        publish.push_back(ForwardSubject{false, "*", sToken, "*", "*"}.text());
        subscribe.push_back(ForwardSubject{true, sToken, "*", "*", "*"}.text());
    }
    for (const std::string& sReached : rights.reach) {
        const auto [sService, sAt] = serviceAtHost(sReached);
        publish.push_back(ForwardSubject{true, sAt, sToken, sService, "*"}.text());
        subscribe.push_back(ForwardSubject{false, sToken, sAt, sService, "*"}.text());
    }
    std::string sText = "{\n  user: \"" + sHost + "\"\n  permissions: {\n    publish: [\n";
    for (const std::string& sSubject : publish)
        sText += "      \"" + sSubject + "\"\n";
    sText += "    ]\n    subscribe: [\n";
    for (const std::string& sSubject : subscribe)
        sText += "      \"" + sSubject + "\"\n";
    return sText + "    ]\n  }\n}\n";
}

} // namespace VornRelay
