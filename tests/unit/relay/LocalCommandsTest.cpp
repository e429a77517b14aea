// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Commands.h"

#include <stdexcept>

#include <gtest/gtest.h>

TEST(LocalCommandsTest, LeaseWithoutAName_IsNotAskedFor) {
    EXPECT_THROW(VornRelay::takeLease("", "pipe:sink", 0), std::invalid_argument)
        << "it would end with the command";
}
