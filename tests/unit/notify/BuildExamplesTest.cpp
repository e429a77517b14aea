// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The two example programs: events flow, both are killed and come back, and none is missed or printed twice.

#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Process.h"

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/mount.h>

using namespace VornTest;

namespace {

class BuildExamples : public LeakCheckedTest {
protected:
    void SetUp() override {
        // Seen by this process and its children alone, which are in a mount namespace of their own.
        ASSERT_EQ(::mount("none", "/var/lib", "tmpfs", 0, nullptr), 0);
        std::filesystem::create_directory("/var/lib/buildd");
        std::filesystem::create_directory("/opt/watch");
        std::filesystem::current_path("/opt/watch");
    }

    void TearDown() override {
        std::filesystem::current_path("/");
        std::filesystem::remove_all("/opt/watch");
        ASSERT_EQ(::umount("/var/lib"), 0);
    }

    static ChildProcess startService() { return ChildProcess::spawn({VORNTEST_BUILDD_FILE}); }

    static ChildProcess startWatch() { return ChildProcess::spawn({VORNTEST_BUILDWATCH_FILE}); }

    /** The next line that is about an event. */
    static std::string nextEvent(ChildProcess& watch) {
        std::string line = watch.readLine();
        while (line.compare(0, 2, "--") == 0)
            line = watch.readLine();
        return line;
    }

    /** Waits until the watching program has noted the event of that number. */
    static bool awaitNoted(const std::string& number) {
        return awaitCondition([&] {
            const std::string text = readTextFile("/opt/watch/buildwatch.position");
            return text.size() == 38 && text.substr(37 - number.size(), number.size()) == number;
        });
    }
};

TEST_F(BuildExamples, ServiceAndClientAreKilledAndComeBack_AndEachEventIsPrintedOnce) {
    std::optional<ChildProcess> service = startService();
    std::optional<ChildProcess> watch = startWatch();
    std::vector<std::string> printed;
    service->writeLine("started kernel");
    service->writeLine("finished kernel 41.5");
    printed.push_back(nextEvent(*watch));
    printed.push_back(nextEvent(*watch));

    service->kill(SIGKILL);
    service->wait();
    service = startService();
    service->writeLine("failed shell linker");
    printed.push_back(nextEvent(*watch));
    ASSERT_TRUE(awaitNoted("3"));

    watch->kill(SIGKILL);
    watch->wait();
    service->writeLine("started docs");
    service->writeLine("finished docs 2");
    watch = startWatch();
    printed.push_back(nextEvent(*watch));
    printed.push_back(nextEvent(*watch));
    ASSERT_TRUE(awaitNoted("5"));

    service->closeInput();
    EXPECT_EQ(service->wait(), 0);
    watch->kill(SIGTERM);
    EXPECT_EQ(watch->wait(), 0);
    EXPECT_THAT(printed,
                testing::ElementsAre("1 kernel started", "2 kernel finished, 41.5 s",
                                     "3 shell failed: linker", "4 docs started", "5 docs finished, 2.0 s"));
    // Until it is told to stop, it may try to connect again.
    EXPECT_THAT(watch->readAllOutput(), testing::StartsWith("-- away the service stops\n"));
}

TEST_F(BuildExamples, WithoutADirectory_TheServiceSaysWhy) {
    std::filesystem::remove("/var/lib/buildd");
    ChildProcess service = startService();
    EXPECT_EQ(service.wait(), 1);
    EXPECT_EQ(service.readAllErrors(), "buildd: VornPublisher::VornPublisher: failed to open history. (2)\n");
}

} // namespace
