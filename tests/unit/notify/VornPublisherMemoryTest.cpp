// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A publisher without memory.
 */

#include "WithoutMemory.h"

#include <filesystem>

#include <gmock/gmock.h>

using namespace VornNet;
using namespace VornTest;

// The sanitizers have an allocator of their own in the place of the one that fails.
#ifdef VORNTEST_OWN_MALLOC

namespace {

const std::string directory = "/opt/histories";

class VornPublisher_Memory : public PublisherFixture {
protected:
    void SetUp() override {
        PublisherFixture::SetUp();
        std::filesystem::create_directory(directory);
    }

    void TearDown() override {
        PublisherFixture::TearDown();
        std::filesystem::remove_all(directory);
    }

    static VornPublisher::Options withDirectory() {
        VornPublisher::Options options;
        options.sDirectory = directory;
        return options;
    }
};

TEST_F(VornPublisher_Memory, APublisherThatGetsNoneAtItsConstruction_ThrowsAndLeavesNothing) {
    const VornPublisher::Options options;
    const std::vector<std::string> topics{"builds"};
    EXPECT_THAT(withoutEachBlock([&] { const VornPublisher publisher("pipe:alpha", topics, options); }),
                testing::Each(testing::EndsWith(" 12")));
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
    EXPECT_THAT(thrown, testing::Each("VornPublisher::addTopic: failed to open history. 12"));
    EXPECT_GT(thrown.size(), 5U);
    EXPECT_EQ(added, 2);
}

} // namespace

#endif
