// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What the constructor refuses, and with what number.
 */

#include "Interpose.h"
#include "Sandbox.h"
#include "SteadySinkPeer.h"

#include <limits>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace VornTest;
using namespace std::chrono_literals;

namespace {

using testing::StartsWith;

class VornSteadySink_Options : public NotificationTest {};

/** Changes options for a kind, which are invalid then. */
struct Invalid {
    Kind kind;
    std::string what;
    std::function<void(SteadyOptions&)> change;
};

std::string addressOf(const SteadyOptions& options) {
    return VornNet::VornSteadySink("sink", options).getCallbackAddress();
}

} // namespace

TEST_F(VornSteadySink_Options, EachInvalidOne_IsRefusedWith22AndOpensNothing) {
    const std::vector<Invalid> table = {
        {Kind::pipe, "a name with a slash", [](auto& o) { o.sPipeName = "a/b"; }},
        {Kind::pipe, "the name .", [](auto& o) { o.sPipeName = "."; }},
        {Kind::pipe, "the name ..", [](auto& o) { o.sPipeName = ".."; }},
        {Kind::pipe, "a name with a zero byte", [](auto& o) { o.sPipeName = std::string("a\0b", 3); }},
        {Kind::pipe, "a path of 108 bytes",
         [](auto& o) { o.sPipeName = std::string(108 - std::string(pipeDirectory()).size(), 'n'); }},
        {Kind::pipe, "an unknown group", [](auto& o) { o.sPipeGroup = "nobody-knows-it"; }},
        {Kind::socket, "a port above 65535", [](auto& o) { o.nPort = 65'536; }},
        {Kind::socket, "a port below 0", [](auto& o) { o.nPort = -1; }},
        {Kind::udp, "a port below 0", [](auto& o) { o.nPort = -1; }},
        {Kind::socket, "a host's name to bind to", [](auto& o) { o.sBindAddress = "localhost"; }},
        {Kind::socket, "an address of three numbers", [](auto& o) { o.sBindAddress = "127.0.1"; }},
        {Kind::socket, "an address with a blank", [](auto& o) { o.sBindAddress = "127.0.0.1 "; }},
        {Kind::socket, "an address with a zero byte",
         [](auto& o) { o.sBindAddress = std::string("127.0.0.1\0x", 11); }},
        {Kind::socket, "all addresses without a published host", [](auto& o) { o.sBindAddress = "*"; }},
        {Kind::udp, "all addresses without a published host", [](auto& o) { o.sBindAddress = "*"; }},
        {Kind::socket, "0.0.0.0 without a published host", [](auto& o) { o.sBindAddress = "0.0.0.0"; }},
        {Kind::socket, "a published name", [](auto& o) { o.sPublishedHost = "host"; }},
        {Kind::socket, "0.0.0.0 published", [](auto& o) { o.sPublishedHost = "0.0.0.0"; }},
        {Kind::socket, "* published", [](auto& o) { o.sPublishedHost = "*"; }},
        {Kind::socket, "a network that is none",
         [](auto& o) {
             o.allowedNetworks = {"10.0.0.0/8", "home"};
         }},
        {Kind::socket, "an empty network", [](auto& o) { o.allowedNetworks = {""}; }},
        {Kind::udp, "a network of 33 bits", [](auto& o) { o.allowedNetworks = {"10.0.0.0/33"}; }},
        {Kind::udp, "a network of -1 bits", [](auto& o) { o.allowedNetworks = {"10.0.0.0/-1"}; }},
        {Kind::udp, "a network without bits", [](auto& o) { o.allowedNetworks = {"10.0.0.0/"}; }},
        {Kind::udp, "a network of 08 bits", [](auto& o) { o.allowedNetworks = {"10.0.0.0/08"}; }},
        {Kind::udp, "a network with more behind it", [](auto& o) { o.allowedNetworks = {"10.0.0.0/8x"}; }},
        {Kind::pipe, "no read limit", [](auto& o) { o.readLimit = 0ms; }},
        {Kind::pipe, "a negative read limit", [](auto& o) { o.readLimit = -1ms; }},
        {Kind::socket, "no message limit", [](auto& o) { o.nMessageLimit = 0; }},
        {Kind::udp, "no byte limit", [](auto& o) { o.nByteLimit = 0; }},
        {Kind::pipe, "a kind that is none",
         [](auto& o) { o.kind = static_cast<VornNet::VornSteadySink::Kind>(17); }},
    };
    for (const Invalid& row : table) {
        SCOPED_TRACE(nameOf(row.kind) + ", " + row.what);
        const CallTrace trace(CallTrace::Scope::CallingThread);
        EXPECT_EQ(codeOf(optionsFor(row.kind, row.change), cInvalidOption), EINVAL);
        EXPECT_EQ(trace.calls("socket"), 0);
    }
}

TEST_F(VornSteadySink_Options, ThoseOfAnotherTransport_AreNotLookedAt) {
    SteadyOptions options = optionsFor(Kind::pipe);
    options.nPort = -1;
    options.sBindAddress = "*";
    options.allowedNetworks = {"home"};
    EXPECT_THAT(addressOf(options), StartsWith("pipe:"));
    options = optionsFor(Kind::socket);
    options.sPipeName = "a/b";
    options.sPipeGroup = "nobody-knows-it";
    options.allowedUsers = {4711};
    EXPECT_THAT(addressOf(options), StartsWith("socket:"));
}

TEST_F(VornSteadySink_Options, TheLongestValues_AreTaken) {
    SteadyOptions options = optionsFor(Kind::pipe);
    options.sPipeName = std::string(107 - std::string(pipeDirectory()).size(), 'n');
    options.readLimit = std::chrono::milliseconds::max();
    options.nMessageLimit = std::numeric_limits<std::size_t>::max();
    options.nByteLimit = std::numeric_limits<std::size_t>::max();
    options.nConnectionLimit = std::numeric_limits<std::size_t>::max();
    const SteadyClient client(options);
    EXPECT_EQ(deliverTo(client.address(), "content"), "end");
}

TEST_F(VornSteadySink_Options, WithoutAPipeDirectory_TheNumberIs2AtOnce) {
    const MissingPipeDirectory missing;
    EXPECT_EQ(codeOf(optionsFor(Kind::pipe), cOpenFailed), ENOENT);
    EXPECT_EQ(codeOf(optionsFor(Kind::pipe, [](auto& o) { o.sPipeName = "named"; }), cOpenFailed), ENOENT);
}

TEST_F(VornSteadySink_Options, APortInUse_Is98) {
    int port = 0;
    const auto takePort = [&](auto& options) { options.nPort = port; };
    const UniqueFd listener = tcpListen("127.0.0.1", port);
    EXPECT_EQ(codeOf(optionsFor(Kind::socket, takePort), cOpenFailed), EADDRINUSE);
    port = 0;
    const UniqueFd receiver = udpSocket("127.0.0.1", port);
    EXPECT_EQ(codeOf(optionsFor(Kind::udp, takePort), cOpenFailed), EADDRINUSE);
    for (const Kind kind : {Kind::socket, Kind::udp}) {
        const SteadyClient another(optionsFor(kind));
        port = Target(another.address()).port;
        EXPECT_EQ(codeOf(optionsFor(kind, takePort), cOpenFailed), EADDRINUSE);
    }
}

TEST_F(VornSteadySink_Options, AGivenPort_CanBeOpenedAgainAtOnce) {
    SteadyOptions options = optionsFor(Kind::socket);
    options.nPort = unusedTcpPort();
    for (int i = 0; i < 3; ++i) {
        SteadyClient client(options);
        EXPECT_EQ(client.address(), "socket:127.0.0.1:" + std::to_string(options.nPort));
        EXPECT_EQ(deliverTo(client.address(), ""), "end");
        EXPECT_EQ(deliverTo(client.address(), "", 1), "reset");
    }
}

TEST_F(VornSteadySink_Options, AnAddressOfAnotherHost_Is99) {
    const auto takeAddress = [](auto& options) { options.sBindAddress = "192.0.2.1"; };
    for (const Kind kind : {Kind::socket, Kind::udp})
        EXPECT_EQ(codeOf(optionsFor(kind, takeAddress), cOpenFailed), EADDRNOTAVAIL);
}

TEST_F(VornSteadySink_Options, AnUnknownLocalhost_Is99) {
    useHostsFile("127.0.0.1 vega\n");
    for (const Kind kind : {Kind::socket, Kind::udp})
        EXPECT_EQ(codeOf(optionsFor(kind), cOpenFailed), EADDRNOTAVAIL);
}

TEST_F(VornSteadySink_Options, TheAddressOfLocalhostsOfficialName_IsTheSinks) {
    useHostsFile("127.0.0.9 vega\n127.0.0.9 vega localhost\n");
    EXPECT_THAT(addressOf(optionsFor(Kind::socket)), StartsWith("socket:127.0.0.9:"));
    EXPECT_THAT(addressOf(optionsFor(Kind::udp)), StartsWith("udp:127.0.0.9:"));
}

TEST_F(VornSteadySink_Options, ABindAddress_IsTheSinks) {
    const SteadyClient client(optionsFor(Kind::socket, [](auto& o) { o.sBindAddress = "127.0.0.5"; }));
    EXPECT_THAT(client.address(), StartsWith("socket:127.0.0.5:"));
    EXPECT_EQ(deliverTo(client.address(), ""), "end");
}

TEST_F(VornSteadySink_Options, AllAddresses_ArePublishedAsTheGivenHost) {
    for (const Kind kind : {Kind::socket, Kind::udp}) {
        SteadyOptions options = optionsFor(kind);
        options.sBindAddress = "*";
        options.sPublishedHost = "127.0.0.7";
        const SteadyClient client(options);
        EXPECT_THAT(client.address(), StartsWith(nameOf(kind) + ":127.0.0.7:"));
        sendByHand(client.address(), onWire(0));
        EXPECT_TRUE(client.callback()->awaitCalls(1));
    }
}

TEST_F(VornSteadySink_Options, AServerThatMayNotListen_IsToldWithItsNumber) {
    const auto before = openDescriptors();
    for (const Kind kind : {Kind::pipe, Kind::socket}) {
        const FaultRule failing("listen", EOPNOTSUPP);
        EXPECT_EQ(codeOf(optionsFor(kind), cOpenFailed), EOPNOTSUPP);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(VornSteadySink_Options, AnythingThatCannotBeStarted_IsToldWithItsNumber) {
    const auto before = openDescriptors();
    for (const char* call : {"epoll_create1", "eventfd", "epoll_ctl"}) {
        const FaultRule failing(call, EMFILE);
        EXPECT_EQ(codeOf(optionsFor(Kind::pipe), cStartFailed), EMFILE) << call;
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(::rmdir(pipeDirectory()), 0); // no file is left
    EXPECT_EQ(::mkdir(pipeDirectory(), 0777), 0);
}
