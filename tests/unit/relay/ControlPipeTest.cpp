// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ControlPipe.h"

#include "Posix.h"
#include "Sandbox.h"

#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

using namespace VornRelay;
using namespace VornTest;

namespace {

std::string leaseRequest() {
    std::string sBytes;
    for (const char* szText : {"lease", "name", "pipe:x"})
        putText(sBytes, szText);
    putLong(sBytes, 7);
    return sBytes;
}

} // namespace

TEST(ControlPipeTest, Request_IsReadWhenItIsComplete) {
    const std::string sWhole = leaseRequest();
    for (std::size_t nSize = 0; nSize < sWhole.size(); ++nSize) {
        ControlRequest part;
        EXPECT_FALSE(ControlPipe::parse(sWhole.substr(0, nSize), part).has_value()) << nSize;
    }
    ControlRequest request;
    EXPECT_EQ(ControlPipe::parse(sWhole + "more", request), sWhole.size());
    EXPECT_EQ(request.sVerb, "lease");
    EXPECT_EQ(request.texts, (std::vector<std::string>{"name", "pipe:x"}));
    EXPECT_EQ(request.nHandle, 7);
}

TEST(ControlPipeTest, WhatIsNoRequest_IsRefused) {
    std::string sUnknown;
    putText(sUnknown, "colour");
    for (const std::string& sBytes : {sUnknown, bytes("7f ff ff ff"), bytes("ff ff ff ff")}) {
        ControlRequest request;
        EXPECT_THROW(ControlPipe::parse(sBytes, request), std::invalid_argument) << hex(sBytes);
    }
}

TEST(ControlPipeTest, ProgramThatAsks_IsKnownByTheKernelAndGetsItsAnswers) {
    RelayLoop loop;
    ControlRequest seen;
    ControlPipe pipe(loop, "relay", [&](const ControlRequest& request) {
        seen = request;
        return request.sVerb + "!";
    });
    pipe.open();
    std::thread thread([&] { loop.run(); });
    const UniqueFd program = unixConnect(pipePath("relay"));
    sendAll(program.get(), leaseRequest());
    EXPECT_EQ(receiveExactly(program.get(), 6), "lease!");
    std::string sSecond;
    putText(sSecond, "status");
    sendAll(program.get(), sSecond);
    EXPECT_EQ(receiveExactly(program.get(), 7), "status!");
    const UniqueFd stranger = unixConnect(pipePath("relay"));
    sendAll(stranger.get(), bytes("7f ff ff ff"));
    EXPECT_EQ(receiveToEnd(stranger.get()), "") << "it is closed";
    loop.end();
    thread.join();
    EXPECT_EQ(seen.process, ::getpid());
    EXPECT_EQ(seen.user, ::getuid());
}
