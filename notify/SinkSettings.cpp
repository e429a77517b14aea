// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SinkSettings.h"

#include "DescriptorLimit.h"
#include "DottedAddress.h"
#include "PipeListener.h"
#include "SystemError.h"

#include <GroupId.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <vector>

namespace VornNet {

namespace {

using Kind = VornSteadySink::Kind;
using Options = VornSteadySink::Options;

constexpr std::size_t cMostConnections = 1024;

void require(bool isValid) {
    if (!isValid)
        throwSystemError(EINVAL);
}

Kind kindOf(const Options& options) {
    if (options.kind != Kind::byEnvironment)
        return options.kind;
    const char* type = std::getenv("QUORAX_CALLB_CONN_TYPE");
    const VornString sType = type == nullptr ? "" : type;
    return sType == "socket" ? Kind::tcp : sType == "udp" ? Kind::udp : Kind::pipe;
}

gid_t groupOf(const VornString& sName) {
    const std::optional<gid_t> group = findGroup(sName);
    require(group.has_value());
    return *group;
}

in_addr addressOf(const VornString& sAddress) {
    const std::optional<in_addr> address = parseDottedAddress(sAddress);
    require(address.has_value());
    return *address;
}

void checkPipe(const Options& options, SinkSettings& settings) {
    require(options.sPipeName.empty() || PipeListener::isName(options.sPipeName));
    settings.sPipeName = options.sPipeName;
    if (!options.sPipeGroup.empty())
        settings.group = groupOf(options.sPipeGroup);
    settings.senders.allowUsers(options.allowedUsers);
}

void checkPort(const Options& options, SinkSettings& settings) {
    require(options.nPort >= 0 && options.nPort <= std::numeric_limits<in_port_t>::max());
    settings.nPort = static_cast<in_port_t>(options.nPort);
    if (options.sBindAddress == "*")
        settings.bindAddress = in_addr{INADDR_ANY};
    else if (!options.sBindAddress.empty())
        settings.bindAddress = addressOf(options.sBindAddress);
    if (!options.sPublishedHost.empty()) {
        settings.publishedHost = addressOf(options.sPublishedHost);
        require(settings.publishedHost->s_addr != INADDR_ANY); // no sender takes it for an address
    }
    const bool isForAll = settings.bindAddress.has_value() && settings.bindAddress->s_addr == INADDR_ANY;
    require(!isForAll || settings.publishedHost.has_value());
    for (const VornString& sNetwork : options.allowedNetworks)
        require(settings.senders.allowNetwork(sNetwork));
}

} // namespace

SinkSettings SinkSettings::check(const VornSteadySink::Options& options) {
    SinkSettings settings;
    settings.kind = kindOf(options);
    require(settings.kind == Kind::pipe || settings.kind == Kind::tcp || settings.kind == Kind::udp);
    if (settings.kind == Kind::pipe)
        checkPipe(options, settings);
    else
        checkPort(options, settings);
    require(options.readLimit.count() > 0 && options.nMessageLimit > 0 && options.nByteLimit > 0);
    settings.readLimit = options.readLimit;
    settings.nMessageLimit = options.nMessageLimit;
    settings.nByteLimit = options.nByteLimit;
    settings.nConnectionLimit =
        options.nConnectionLimit != 0 ? options.nConnectionLimit : halfOfDescriptors(cMostConnections);
    return settings;
}

} // namespace VornNet
