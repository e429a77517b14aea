// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Audience.h"

#include "Await.h"

#include <VornNotificationCallback.h>
#include <VornSteadySink.h>

#include <atomic>

#include <gtest/gtest.h>
#include <sys/inotify.h>

using namespace VornNet;
using namespace VornTest;

namespace {

/** Counts its events, and returns from each when it may. */
class GatedListener : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        Example::FileEvent::read(*spConnection);
        ++nEvents;
        awaitCondition([this] { return bMayReturn.load(); });
    }

    std::atomic<int> nEvents{0};
    std::atomic<bool> bMayReturn{true};
};

} // namespace

TEST(AudienceTest, ClientThatLeaves_CostsNoOtherOneAtItsAddressAnEvent) {
    VornSteadySink sink("relay");
    VornCallbackContainer& callbacks = sink.getCallbackContainer();
    const VornSmartPointer<GatedListener> spAlice = new GatedListener(callbacks.getNewId());
    const VornSmartPointer<GatedListener> spBob = new GatedListener(callbacks.getNewId());
    Example::Audience audience;
    for (const auto& spListener : {spAlice, spBob}) {
        callbacks.add(&*spListener);
        audience.add(sink.getCallbackAddress(), spListener->getId());
    }
    spAlice->bMayReturn = false;
    audience.notifyAll({1, IN_DELETE, 0, "file"});
    ASSERT_TRUE(awaitCondition([&] { return spAlice->nEvents == 1; }));
    audience.remove(sink.getCallbackAddress(), spAlice->getId(), "left");
    spAlice->bMayReturn = true;
    audience.stop();
    EXPECT_EQ(spBob->nEvents, 1);
}
