// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include <climits>
#include <type_traits>
#include <vector>

#include <VornProxyDependentIdentifier.h>
#include <gtest/gtest.h>

using namespace VornTest;
using Key = VornProxyDependentIdentifier;
using VornSupport::VornString;

namespace {

class VornProxyDependentIdentifierTest : public LeakCheckedTest {};

} // namespace

TEST_F(VornProxyDependentIdentifierTest, WhenDefaultConstructed_HasAnEmptyNameAndHandleZero) {
    const Key key;
    EXPECT_EQ(key.m_sRemoteName, "");
    EXPECT_EQ(key.m_hDependent, 0L);
}

TEST_F(VornProxyDependentIdentifierTest, HasTheNameAndTheWholeHandleGivenAtConstruction) {
    const Key key("pipe:quorax1f3a", LONG_MIN);
    EXPECT_EQ(key.m_sRemoteName, "pipe:quorax1f3a");
    EXPECT_EQ(key.m_hDependent, LONG_MIN);
    EXPECT_TRUE((std::is_same_v<decltype(Key::m_hDependent), long>));
}

TEST_F(VornProxyDependentIdentifierTest, CopiesAndAssigns_MemberByMember) {
    const Key original("udp:1", 5);
    const Key copy(original);
    EXPECT_EQ(copy.m_sRemoteName, "udp:1");
    EXPECT_EQ(copy.m_hDependent, 5);
    Key assigned;
    assigned = original;
    EXPECT_EQ(assigned.m_sRemoteName, "udp:1");
    EXPECT_EQ(assigned.m_hDependent, 5);
}

TEST_F(VornProxyDependentIdentifierTest, Order_IsByNameThenByHandle) {
    const std::vector<Key> ascending = {
        Key(),
        Key("", 1),
        Key("pipe:quorax1f3a", LONG_MIN),
        Key("pipe:quorax1f3a", -1),
        Key("pipe:quorax1f3a", 3),
        Key("pipe:quorax1f3a", 9),
        Key("pipe:quorax1f3a", 4294967299L), // the low 32 bits are 3
        Key("socket:10.0.0.5:5023", 2),
        Key("udp:1", 5),
        Key(VornString("udp:1\0", 6), 0),
        Key("udp:10", 1),
        Key("z", LONG_MAX),
        Key("\x7F", 0),
        Key("\x80", 0),
        Key("\xFF", 0),
    };
    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j)
            EXPECT_EQ(ascending[i] < ascending[j], i < j) << "keys " << i << " and " << j;
    }
}
