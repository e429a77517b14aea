// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Failure.h"
#include "LeakCheckedTest.h"

#include <climits>
#include <functional>
#include <stdexcept>
#include <type_traits>

#include <VornBufferConnection.h>
#include <VornException.h>
#include <VornNotificationCallback.h>
#include <VornSmartPointer.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace VornSupport;
using VornNet::VornBufferConnection;
using VornNet::VornConnection;
using VornNet::VornNotificationCallback;

namespace {

using ConnectionPointer = VornSmartPointer<VornConnection>;

class Callback : public VornNotificationCallback {
public:
    explicit Callback(int id) : VornNotificationCallback(id) {}

    std::function<void(ConnectionPointer&)> m_action;
    int m_calls = 0;

    using VornNotificationCallback::m_nId;

protected:
    void doCallback(ConnectionPointer& spConnection) override {
        ++m_calls;
        if (m_action)
            m_action(spConnection);
    }
};

class VornNotificationCallbackTest : public LeakCheckedTest {
protected:
    const VornSmartPointer<Callback> m_callback{new Callback(3)};
    ConnectionPointer m_connection{new VornBufferConnection};
};

} // namespace

TEST_F(VornNotificationCallbackTest, HasTheIdGivenAtConstruction) {
    for (const int id : {0, 1, -1, INT_MAX, INT_MIN}) {
        const VornSmartPointer<Callback> callback(new Callback(id));
        EXPECT_EQ(callback->getId(), id);
        EXPECT_EQ(callback->m_nId, id);
    }
}

TEST_F(VornNotificationCallbackTest, Callback_HandsTheVeryConnectionOver) {
    ConnectionPointer* seen = nullptr;
    m_callback->m_action = [&](ConnectionPointer& connection) { seen = &connection; };
    m_callback->callback(m_connection);
    EXPECT_EQ(seen, &m_connection);
    EXPECT_EQ(m_connection->refCount(), 1);
}

TEST_F(VornNotificationCallbackTest, ItsEvent_IsSetAfterDoCallbackAndNotBefore) {
    bool setInside = true;
    m_callback->m_action = [&](ConnectionPointer&) { setInside = m_callback->wait(0); };
    m_callback->callback(m_connection);
    EXPECT_EQ(setInside, false);
    EXPECT_EQ(m_callback->wait(0), true);
}

TEST_F(VornNotificationCallbackTest, ItsEvent_IsSetByEachCallbackWhateverDoCallbackDidWithIt) {
    m_callback->m_action = [&](ConnectionPointer&) { m_callback->reset(); };
    for (int call = 1; call <= 3; ++call) {
        m_callback->callback(m_connection);
        EXPECT_EQ(m_callback->wait(0), true);
        EXPECT_EQ(m_callback->m_calls, call);
    }
}

TEST_F(VornNotificationCallbackTest, WhenDoCallbackThrows_TheExceptionPassesAndTheEventStaysAsItWas) {
    m_callback->m_action = [](ConnectionPointer&) { throw VornException("no", 5); };
    EXPECT_EQ(thrownBy([&] { m_callback->callback(m_connection); }), "no 5");
    EXPECT_EQ(m_callback->wait(0), false);
    m_callback->set();
    m_callback->m_action = [](ConnectionPointer&) { throw std::runtime_error("no"); };
    EXPECT_THROW(m_callback->callback(m_connection), std::runtime_error);
    EXPECT_EQ(m_callback->wait(0), true);
}

TEST_F(VornNotificationCallbackTest, AnEmptyConnection_IsPassedOnAsItIs) {
    ConnectionPointer none;
    bool empty = false;
    m_callback->m_action = [&](ConnectionPointer& connection) { empty = connection == nullptr; };
    m_callback->callback(none);
    EXPECT_EQ(empty, true);
}

TEST_F(VornNotificationCallbackTest, SetAndCallback_AreCalledThroughTheVirtualTable) {
    class Counting : public Callback {
    public:
        using Callback::Callback;

        void set() override {
            ++m_sets;
            Callback::set();
        }

        int m_sets = 0;
    };

    const VornSmartPointer<Counting> callback(new Counting(1));
    VornNotificationCallback& base = *callback;
    base.callback(m_connection);
    EXPECT_EQ(callback->m_sets, 1);
    EXPECT_EQ(callback->m_calls, 1);
}

TEST_F(VornNotificationCallbackTest, IsAbstractAndCanNeitherBeDefaultedNorCopied) {
    EXPECT_TRUE(std::is_abstract_v<VornNotificationCallback>);
    EXPECT_FALSE(std::is_default_constructible_v<VornNotificationCallback>);
    EXPECT_FALSE(std::is_copy_constructible_v<Callback>);
    EXPECT_FALSE(std::is_copy_assignable_v<VornNotificationCallback>);
}
