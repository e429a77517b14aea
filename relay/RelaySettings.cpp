// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelaySettings.h"

#include "StateFile.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <system_error>

#include <ServiceAddress.h>
#include <Wire.h>
#include <arpa/inet.h>

namespace VornRelay {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t cLongestToken = 190;

std::string trimmed(const std::string& sText) {
    const std::size_t nStart = sText.find_first_not_of(" \t\r");
    const std::size_t nEnd = sText.find_last_not_of(" \t\r");
    return nStart == std::string::npos ? "" : sText.substr(nStart, nEnd - nStart + 1);
}

std::vector<std::string> wordsOf(std::string sText) {
    std::replace(sText.begin(), sText.end(), ',', ' ');
    std::istringstream stream(sText);
    std::vector<std::string> words;
    for (std::string sWord; stream >> sWord;)
        words.push_back(sWord);
    return words;
}

std::size_t numberOf(const std::string& sText, std::size_t nLeast,
                     std::size_t nMost = std::numeric_limits<std::size_t>::max()) {
    std::size_t nUsed = 0;
    unsigned long nValue = 0;
    try {
        nValue = std::stoul(sText, &nUsed);
    } catch (const std::logic_error&) {
        nUsed = 0;
    }
    if (nUsed == 0 || nUsed != sText.size() || sText[0] == '-' || nValue < nLeast || nValue > nMost)
        throw std::invalid_argument("not a number from " + std::to_string(nLeast) + " on, or too large");
    return nValue;
}

milliseconds secondsOf(const std::string& sText) {
    constexpr std::size_t cMostSeconds = 30UL * 24 * 3600;
    return std::chrono::seconds(numberOf(sText, 1, cMostSeconds));
}

bool yesOrNo(const std::string& sText) {
    if (sText != "yes" && sText != "no")
        throw std::invalid_argument("neither yes nor no");
    return sText == "yes";
}

RelaySettings::OnSlow onSlowOf(const std::string& sText) {
    if (sText != "dead" && sText != "block")
        throw std::invalid_argument("neither dead nor block");
    return sText == "dead" ? RelaySettings::OnSlow::dead : RelaySettings::OnSlow::block;
}

bool isFixed(const std::string& sText) {
    if (sText != "own" && sText != "fixed")
        throw std::invalid_argument("neither own nor fixed");
    return sText == "fixed";
}

/** Takes HOST=ADDRESS, once or several times. */
void addAddresses(const std::string& sText, std::map<std::string, std::string>& addresses) {
    for (const std::string& sWord : wordsOf(sText)) {
        const std::size_t nEqual = sWord.find('=');
        in_addr address{};
        if (nEqual == std::string::npos ||
            ::inet_pton(AF_INET, sWord.substr(nEqual + 1).c_str(), &address) != 1)
            throw std::invalid_argument("not HOST=ADDRESS, with four numbers");
        addresses[hostToken(sWord.substr(0, nEqual))] = sWord.substr(nEqual + 1);
    }
}

/** @return the name. @throws std::invalid_argument for one that is none, or none of the engine's */
std::string topicName(const std::string& sTopic) {
    if (!VornNet::Wire::isTopic(sTopic) || sTopic.back() == '.' || sTopic.find("..") != std::string::npos)
        throw std::invalid_argument("not a topic's name: letters, digits, '-', '_', and '.' in between");
    return sTopic;
}

/** @return the name. @throws std::invalid_argument for one that is none */
std::string serviceName(const std::string& sService) {
    if (!VornNet::Wire::isTopic(sService) || sService.find('.') != std::string::npos)
        throw std::invalid_argument("not a service's name: letters, digits, '-' and '_'");
    return sService;
}

using NameReader = std::string (*)(const std::string& sName);
using AtHost = std::pair<std::string, std::string>; // a name and a host

/** Takes NAME=ADDRESS, once or several times. */
void addNamed(const std::string& sText, NameReader readName, std::map<std::string, std::string>& addresses) {
    for (const std::string& sWord : wordsOf(sText)) {
        const std::size_t nEqual = sWord.find('=');
        if (nEqual == std::string::npos)
            throw std::invalid_argument("not NAME=ADDRESS");
        const std::string sAddress = sWord.substr(nEqual + 1);
        if (!VornNet::ServiceAddress::ofClient(sAddress.c_str()))
            throw std::invalid_argument("not an address of a service");
        addresses[readName(sWord.substr(0, nEqual))] = sAddress;
    }
}

AtHost atHost(const std::string& sText, NameReader readName) {
    const std::size_t nAt = sText.find('@');
    if (nAt == std::string::npos)
        throw std::invalid_argument("not NAME@HOST");
    return {readName(sText.substr(0, nAt)), hostToken(sText.substr(nAt + 1))};
}

/** Takes NAME@HOST, once or several times. */
void addAtHost(const std::string& sText, NameReader readName, std::vector<AtHost>& list) {
    for (const std::string& sWord : wordsOf(sText)) {
        const AtHost added = atHost(sWord, readName);
        if (std::find(list.begin(), list.end(), added) == list.end())
            list.push_back(added);
    }
}

std::vector<std::string> tokensOf(const std::string& sHosts) {
    std::vector<std::string> tokens;
    for (const std::string& sHost : wordsOf(sHosts))
        tokens.push_back(hostToken(sHost));
    return tokens;
}

void readFile(const std::string& sPath, RelaySettings& settings) {
    std::istringstream lines(readState(sPath));
    int nLine = 0;
    for (std::string sLine; std::getline(lines, sLine);) {
        ++nLine;
        sLine = trimmed(sLine);
        if (sLine.empty() || sLine[0] == '#')
            continue;
        const std::size_t nEqual = sLine.find('=');
        try {
            if (nEqual == std::string::npos)
                throw std::invalid_argument("no '='");
            settings.take(trimmed(sLine.substr(0, nEqual)), trimmed(sLine.substr(nEqual + 1)));
        } catch (const std::invalid_argument& error) {
            throw SettingsError(sPath + ":" + std::to_string(nLine) + ": " + sLine + ": " + error.what());
        }
    }
}

} // namespace

RelaySettings RelaySettings::read(const std::string& sPath) try {
    if (!std::filesystem::exists(sPath))
        throw SettingsError(sPath + ": there is no such file");
    RelaySettings settings;
    readFile(sPath, settings);
    const std::filesystem::path directory = std::filesystem::path(sPath).replace_extension(".d");
    std::vector<std::string> additions;
    if (std::filesystem::is_directory(directory)) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            if (entry.path().extension() == ".conf")
                additions.push_back(entry.path());
        }
    }
    std::sort(additions.begin(), additions.end());
    for (const std::string& sAddition : additions)
        readFile(sAddition, settings);
    settings.check();
    return settings;

} catch (const std::system_error& error) {

    throw SettingsError(error.what());
}

void RelaySettings::take(const std::string& sKey, const std::string& sValue) {
    const std::map<std::string, std::function<void()>> keys{
        {"host", [&] { access.sHost = hostToken(sValue); }},
        {"servers", [&] { access.servers = wordsOf(sValue); }},
        {"ca", [&] { access.sCa = sValue; }},
        {"certificate", [&] { access.sCertificate = sValue; }},
        {"key", [&] { access.sKey = sValue; }},
        {"login", [&] { access.sLogin = sValue; }},
        {"password", [&] { access.sPassword = sValue; }},
        {"send-to",
         [&] {
             bSendToAll = sValue == "*";
             sendTo = bSendToAll ? std::vector<std::string>() : tokensOf(sValue);
         }},
        {"receive", [&] { bReceive = yesOrNo(sValue); }},
        {"window", [&] { nWindow = numberOf(sValue, 1, 65536); }},
        {"publish-timeout", [&] { publishTimeout = secondsOf(sValue); }},
        {"held", [&] { nHeld = numberOf(sValue, 16, 1'000'000); }},
        {"patience", [&] { patience = secondsOf(sValue); }},
        {"on-slow", [&] { onSlow = onSlowOf(sValue); }},
        {"slow-after", [&] { slowAfter = secondsOf(sValue); }},
        {"consumer", [&] { access.bFixedConsumer = isFixed(sValue); }},
        {"redirect-port", [&] { nRedirectPort = static_cast<std::uint16_t>(numberOf(sValue, 1, 65535)); }},
        {"redirect-address", [&] { addAddresses(sValue, redirectAddresses); }},
        {"topic", [&] { addNamed(sValue, &topicName, topics); }},
        {"follow", [&] { addAtHost(sValue, &topicName, followed); }},
        {"offer", [&] { addNamed(sValue, &serviceName, offered); }},
        {"reach", [&] { addAtHost(sValue, &serviceName, reached); }},
        {"hold-bytes", [&] { nHoldBytes = numberOf(sValue, 1); }},
        {"state-directory", [&] { sStateDirectory = sValue; }},
        {"metrics", [&] { sMetrics = sValue; }},
        {"log-level", [&] { nLogLevel = static_cast<int>(numberOf(sValue, 0, 2)); }},
    };
    const auto found = keys.find(sKey);
    if (found == keys.end())
        throw std::invalid_argument("there is no such key");
    if (sValue.empty() && sKey != "send-to")
        throw std::invalid_argument("no value");
    found->second();
}

in_addr RelaySettings::redirectAddress(const std::string& sHost) const {
    in_addr address{};
    if (const auto found = redirectAddresses.find(sHost); found != redirectAddresses.end())
        ::inet_pton(AF_INET, found->second.c_str(), &address);
    return address;
}

void RelaySettings::check() const {
    if (access.sHost.empty())
        throw SettingsError("host is missing");
    if (access.servers.empty())
        throw SettingsError("servers is missing");
    if (access.sCertificate.empty() != access.sKey.empty())
        throw SettingsError("certificate and key belong together");
    if (!access.sCertificate.empty() && access.sCa.empty())
        throw SettingsError("certificate without ca");
    for (const auto& [sName, sHost] : reached) {
        if (std::find(followed.begin(), followed.end(), AtHost(sName, sHost)) != followed.end())
            throw SettingsError("reach and follow are both for the pipe " + sName + "@" + sHost);
    }
}

std::string hostToken(const std::string& sHost) {
    std::string sToken = sHost;
    std::replace(sToken.begin(), sToken.end(), '.', '_');
    const bool bIsPlain = std::all_of(sToken.begin(), sToken.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '_';
    });
    if (sToken.empty() || sToken.size() > cLongestToken || !bIsPlain)
        throw std::invalid_argument("not a host's name: letters, digits, '-' and '.'");
    return sToken;
}

std::pair<std::string, std::string> serviceAtHost(const std::string& sText) {
    return atHost(sText, &serviceName);
}

} // namespace VornRelay
