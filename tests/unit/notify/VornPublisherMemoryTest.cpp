// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A publisher and a subscriber without memory.
 */

#include "AllocationFaults.h"
#include "PublisherFixture.h"

#include <VornSubscriber.h>

#include <cerrno>
#include <filesystem>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;
using namespace std::chrono_literals;

// The sanitizers have an allocator of their own in the place of the one that fails.
#ifdef VORNTEST_OWN_MALLOC

namespace {

const std::string directory = "/opt/histories";
const std::string positionFile = "/opt/position";

class VornPublisher_Memory : public PublisherFixture {
protected:
    void SetUp() override {
        PublisherFixture::SetUp();
        std::filesystem::create_directory(directory);
    }

    void TearDown() override {
        PublisherFixture::TearDown();
        std::filesystem::remove_all(directory);
        std::filesystem::remove(positionFile);
    }

    static VornPublisher::Options withDirectory() {
        VornPublisher::Options options;
        options.sDirectory = directory;
        return options;
    }

    /** Does it without the n-th block of memory, for each n that it needs. @return what was thrown */
    static std::vector<std::string> withoutEachBlock(const std::function<void()>& work) {
        std::vector<std::string> thrown;
        work(); // so that the kit has looked up the functions that it stands before
        for (int nth = 1; thrown.empty() || thrown.back() != "nothing"; ++nth) {
            thrown.push_back(thrownBy([&] {
                const AllocationFault fault(nth, AllocationFault::Mode::once,
                                            AllocationFault::Scope::thisThread);
                work();
            }));
        }
        thrown.pop_back();
        return thrown;
    }
};

using VornSubscriber_Memory = VornPublisher_Memory;

/** Text and error number; 11 is for a thread that could not be made. */
testing::Matcher<const std::vector<std::string>&> areAll(const std::string& text) {
    return testing::AllOf(testing::SizeIs(testing::Gt(1U)),
                          testing::Each(testing::AnyOf(text + " 12", text + " 11")));
}

TEST_F(VornPublisher_Memory, APublisherThatGetsNoneAtItsConstruction_ThrowsAndLeavesNothing) {
    const VornPublisher::Options options;
    const std::vector<std::string> topics{"builds"};
    EXPECT_THAT(withoutEachBlock([&] { const VornPublisher publisher("pipe:alpha", topics, options); }),
                testing::Each(testing::EndsWith(" 12")));
}

TEST_F(VornSubscriber_Memory, ASubscriberThatGetsNoneAtItsConstruction_ThrowsAndLeavesNothing) {
    VornSubscriber::Options options;
    const VornSubscriber::EventHandler onEvent = [](VornConnection&, const VornSubscriber::Event&) {};
    const auto subscribe = [&] { const VornSubscriber subscriber("pipe:alpha", "builds", onEvent, options); };
    EXPECT_THAT(withoutEachBlock(subscribe), areAll("VornSubscriber::VornSubscriber: failed to start."));
    options.bOwnThread = false;
    EXPECT_THAT(withoutEachBlock(subscribe), areAll("VornSubscriber::VornSubscriber: failed to start."));
}

TEST_F(VornPublisher_Memory, ATopicThatIsAddedWithoutIt_CanBeAddedAfterwards) {
    open(withDirectory());
    int added = 0;
    const std::vector<std::string> thrown = withoutEachBlock([&] {
        const std::string topic = "topic" + std::to_string(added);
        publisher().addTopic(topic);
        publisher().position(topic);
        ++added;
    });
    EXPECT_THAT(thrown, areAll("VornPublisher::addTopic: failed to open history."));
    EXPECT_EQ(added, 2);
}

TEST_F(VornSubscriber_Memory, ASubscriberThatGetsNoneForAReason_IsBackAfterThePause) {
    const UniqueFd listener = unixListen(pipePath("alpha"), 1);
    VornSubscriber::Options options;
    options.answerLimit = 60s;
    const VornSubscriber subscriber(
        "pipe:alpha", "builds", [](VornConnection&, const auto&) {}, options);
    for (int round = 0; round < 2; ++round) {
        const UniqueFd service = acceptClient(listener.get());
        EXPECT_EQ(receiveExactly(service.get(), 8), "builds\r\n");
        sendAll(service.get(), "+");
        receiveExactly(service.get(), WireRequest().bytes().size());
        sendAll(service.get(), WirePlace{1, 1, 0, 60'000}.bytes());
        ASSERT_TRUE(
            awaitCondition([&] { return subscriber.status().state == VornSubscriber::State::connected; }));
        if (round == 0) {
            const AllocationFault none(1, AllocationFault::Mode::fromThenOn,
                                       AllocationFault::Scope::otherThreads);
            sendAll(service.get(), WireFrame::last(2, std::string(100, 'x')).bytes());
            ASSERT_TRUE(awaitCondition([&] { return subscriber.status().nCode == ENOMEM; }));
        }
    }
    ::unlink(pipePath("alpha").c_str());
}

} // namespace

#endif
