// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "CallbackEndpoint.h"
#include "Sandbox.h"

#include <string>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>

using VornNet::CallbackEndpoint;
using namespace std::string_literals;

namespace {

std::string textOf(const CallbackEndpoint& endpoint) {
    const CallbackEndpoint::Address address(endpoint);
    if (address.get()->sa_family == AF_UNIX)
        return reinterpret_cast<const sockaddr_un*>(address.get())->sun_path;
    const auto* internet = reinterpret_cast<const sockaddr_in*>(address.get());
    char text[INET_ADDRSTRLEN];
    return ::inet_ntop(AF_INET, &internet->sin_addr, text, sizeof text) + ":"s +
           std::to_string(ntohs(internet->sin_port));
}

// The directory has 41 bytes, and a path at most 107.
const std::string cLongestName(66, 'n');

} // namespace

TEST(CallbackEndpoint, LeadsWhereTheTextSays) {
    const struct {
        std::string text;
        CallbackEndpoint::Kind kind;
        std::string place;
    } rows[] = {
        {"pipe:quorax1f3a", CallbackEndpoint::Kind::pipe, VornTest::pipePath("quorax1f3a")},
        {"pipe:a;b:c...", CallbackEndpoint::Kind::pipe, VornTest::pipePath("a;b:c...")},
        {"pipe:" + cLongestName, CallbackEndpoint::Kind::pipe, VornTest::pipePath(cLongestName)},
        {"socket:127.0.0.1:5023", CallbackEndpoint::Kind::tcp, "127.0.0.1:5023"},
        {"udp:255.255.255.255:1", CallbackEndpoint::Kind::udp, "255.255.255.255:1"},
        {"socket:10.0.0.5:65535", CallbackEndpoint::Kind::tcp, "10.0.0.5:65535"},
        {"socket:10.0.0.5:-1", CallbackEndpoint::Kind::tcp, "10.0.0.5:65535"},
        {"socket:10.0.0.5:-32768", CallbackEndpoint::Kind::tcp, "10.0.0.5:32768"},
        {"socket:10.0.0.5:05023", CallbackEndpoint::Kind::tcp, "10.0.0.5:5023"},
        {"socket:10.0.0.5:5023;", CallbackEndpoint::Kind::tcp, "10.0.0.5:5023"},
        {"socket:10.0.0.5:5023;any:thing;", CallbackEndpoint::Kind::tcp, "10.0.0.5:5023"},
    };

    for (const auto& row : rows) {
        const auto endpoint = CallbackEndpoint::parse(row.text);
        ASSERT_TRUE(endpoint.has_value()) << row.text;
        EXPECT_EQ(endpoint->kind(), row.kind) << row.text;
        EXPECT_EQ(textOf(*endpoint), row.place) << row.text;
    }
}

TEST(CallbackEndpoint, TakesNoOtherNameOfAPipe) {
    for (const std::string& text :
         {""s, "pipe"s, "pipe:"s, "pipe:."s, "pipe:.."s, "pipe:a/b"s, "pipe:/a"s, "pipe:a\0b"s,
          "pipe:" + cLongestName + "n", "Pipe:a"s, " pipe:a"s, "pipes:a"s})
        EXPECT_FALSE(CallbackEndpoint::parse(text).has_value()) << text;
}

TEST(CallbackEndpoint, TakesNoOtherKindOrHost) {
    for (const std::string& text :
         {"socket:10.0.0:1"s, "socket:10.0.0.5.6:1"s, "socket:10.0.0.256:1"s, "socket:10.0.0.-1:1"s,
          "socket:10.0.0.05:1"s, "socket:10.0.0.0x5:1"s, "socket: 10.0.0.5:1"s, "socket:10.0.0.5\0:1"s,
          "socket:0.0.0.0:1"s, "socket:localhost:1"s, "socket:::1:1"s, "socket:[::1]:1"s, "socket::1"s,
          "socket:"s, "udp:0.0.0.0:1"s, "udp10.0.0.5:1"s, "ssl:10.0.0.5:1"s, "tcp:10.0.0.5:1"s})
        EXPECT_FALSE(CallbackEndpoint::parse(text).has_value()) << text;
}

TEST(CallbackEndpoint, TakesNoOtherPort) {
    for (const std::string& text :
         {"socket:10.0.0.5"s, "socket:10.0.0.5:"s, "socket:10.0.0.5:0"s, "socket:10.0.0.5:-0"s,
          "socket:10.0.0.5:65536"s, "socket:10.0.0.5:-32769"s, "socket:10.0.0.5:99999999999999999999"s,
          "socket:10.0.0.5:+1"s, "socket:10.0.0.5: 1"s, "socket:10.0.0.5:1 "s, "socket:10.0.0.5:0x10"s,
          "socket:10.0.0.5:1:2"s, "socket:10.0.0.5:;1"s, "socket:10.0.0.5;:1"s, "socket:10.0.0.5:1\0"s,
          "udp:10.0.0.5:65536"s})
        EXPECT_FALSE(CallbackEndpoint::parse(text).has_value()) << text;
}

TEST(CallbackEndpoint, IsEqualForTextsThatLeadToTheSamePlace) {
    const auto keyOf = [](const std::string& text) { return CallbackEndpoint::parse(text)->key(); };
    EXPECT_EQ(keyOf("socket:10.0.0.5:-1"), keyOf("socket:10.0.0.5:65535;more"));
    EXPECT_NE(keyOf("socket:10.0.0.5:1"), keyOf("udp:10.0.0.5:1"));
    EXPECT_NE(keyOf("socket:10.0.0.5:1"), keyOf("socket:10.0.0.5:2"));
    EXPECT_NE(keyOf("pipe:a"), keyOf("pipe:a;"));
}

TEST(CallbackEndpoint, KnowsTheNameOfItsHost) {
    EXPECT_EQ(CallbackEndpoint::parse("pipe:quorax1f3a")->host(), "quorax1f3a");
    EXPECT_EQ(CallbackEndpoint::parse("udp:10.0.0.5:5023;more")->host(), "10.0.0.5");
}
