// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PipeListener.h"

#include "Posix.h"
#include "Sandbox.h"

#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

using VornNet::PipeListener;
using namespace VornTest;

TEST(PipeListener, KnowsWhetherAServerHasTheName) {
    EXPECT_FALSE(PipeListener::isAlive("peer"));
    UniqueFd server = unixListen(pipePath("peer"));
    EXPECT_TRUE(PipeListener::isAlive("peer"));
    server.reset();
    EXPECT_FALSE(PipeListener::isAlive("peer")) << "its file is still there";
    ::unlink(pipePath("peer").c_str());
}

TEST(PipeListener, NobodyHasWhatIsNoName) {
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string(200, 'n')})
        EXPECT_FALSE(PipeListener::isAlive(name)) << name;
}
