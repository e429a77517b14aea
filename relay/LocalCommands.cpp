// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Commands.h"
#include "Relay.h"

#include <VornException.h>
#include <VornPipeConnection.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <sys/resource.h>

namespace VornRelay {

namespace {

using Json = nlohmann::json;
using VornNet::VornPipeConnection;
using VornSupport::VornString;

void useAllDescriptors() {
    rlimit limits{};
    if (::getrlimit(RLIMIT_NOFILE, &limits) == 0) {
        limits.rlim_cur = limits.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limits);
    }
}

void blockSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, nSignal);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/** @return the text with which the relay of this host answers a request of one word and perhaps a text. */
std::string ask(const char* szVerb, const std::string* pText = nullptr) {
    VornPipeConnection connection("relay");
    connection.establish();
    connection.transfer(VornString(szVerb));
    if (pText != nullptr)
        connection.transfer(VornString(pText->c_str()));
    return connection.receiveString().c_str();
}

std::string textOf(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string lineOf(const Json& lease) {
    std::string sName = textOf(lease["name"]);
    sName.resize(std::max<std::size_t>(sName.size(), 16), ' ');
    return sName + " " + textOf(lease["address"]) + " " + textOf(lease["handle"]) + ", " +
           textOf(lease["waiting"]) + " waiting, oldest " + textOf(lease["oldest"]) + " s, " +
           textOf(lease["tries"]) + " tries" + (lease["away"] == true ? ", away" : "");
}

} // namespace

int runRelay(const std::string& sSettingsFile) {
    blockSignals();
    useAllDescriptors();
    Relay relay(RelaySettings::read(sSettingsFile), sSettingsFile);
    relay.run();
    return exitDone;
}

int printStatus(bool bJson) {
    const std::string sAnswer = ask("status");
    if (bJson) {
        std::printf("%s\n", sAnswer.c_str());
        return exitDone;
    }
    const Json status = Json::parse(sAnswer);
    for (const auto& [sKey, value] : status.items()) {
        if (!value.is_structured() || sKey == "dead")
            std::printf("%-10s %s\n", sKey.c_str(), textOf(value).c_str());
    }
    for (const Json& host : status["hosts"]) {
        const std::string sFailure = host["full"] == true ? "stream full" : textOf(host["failure"]);
        std::printf("to %s: %s waiting, %s bytes%s%s%s\n", textOf(host["host"]).c_str(),
                    textOf(host["waiting"]).c_str(), textOf(host["bytes"]).c_str(),
                    sFailure.empty() ? "" : ", ", sFailure.c_str(), host["open"] == true ? "" : ", closed");
    }
    for (const Json& sink : status["sinks"])
        std::printf("sink %s\n", lineOf(sink).c_str());
    for (const Json& topic : status["topics"]) {
        const std::string sHost = topic.contains("host") ? "@" + textOf(topic["host"]) : "";
        const std::string sFailure = textOf(topic["failure"]);
        std::printf("topic %s at %s: %s, %s%s%s\n", (textOf(topic["topic"]) + sHost).c_str(),
                    textOf(topic["address"]).c_str(), textOf(topic["state"]).c_str(),
                    textOf(topic["position"]).c_str(), sFailure.empty() ? "" : ", ", sFailure.c_str());
    }
    for (const Json& service : status["services"]) {
        const std::string sFailure = textOf(service["failure"]);
        std::printf("service %s at %s: %s, %s connections%s%s\n", textOf(service["service"]).c_str(),
                    textOf(service["address"]).c_str(), textOf(service["state"]).c_str(),
                    textOf(service["connections"]).c_str(), sFailure.empty() ? "" : ", ", sFailure.c_str());
    }
    if (const Json& stream = status["stream"]; stream.is_object())
        std::printf("stream: %s messages, %s of %s bytes\n", textOf(stream["messages"]).c_str(),
                    textOf(stream["bytes"]).c_str(), textOf(stream["limit"]).c_str());
    return exitDone;
}

int printLeases(bool bJson) {
    const Json leases = Json::parse(ask("leases"));
    for (const Json& lease : leases)
        std::printf("%s\n", bJson ? lease.dump().c_str() : lineOf(lease).c_str());
    return exitDone;
}

int takeLease(const std::string& sName, const std::string& sAddress, int nHandle) {
    if (sName.empty())
        throw std::invalid_argument(
            "a lease needs a name here: one without ends with the process that took it");
    VornPipeConnection connection("relay");
    connection.establish();
    connection.transfer(VornString("lease"));
    connection.transfer(VornString(sName.c_str()));
    connection.transfer(VornString(sAddress.c_str()));
    connection.transfer(static_cast<long>(nHandle));
    const VornString sLeased = connection.receiveString();
    const long nLease = connection.receiveLong();
    if (sLeased.empty()) {
        std::fprintf(stderr, "vornnet relay: %s\n", connection.receiveString().c_str());
        return exitRefused;
    }
    std::printf("%s %ld\n", sLeased.c_str(), nLease);
    return exitDone;
}

int releaseLease(const std::string& sName) {
    const std::string sWhy = ask("release", &sName);
    if (sWhy.empty())
        return exitDone;
    std::fprintf(stderr, "vornnet relay: %s\n", sWhy.c_str());
    return exitRefused;
}

} // namespace VornRelay
