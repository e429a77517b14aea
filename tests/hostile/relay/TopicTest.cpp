// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "RelayStage.h"

#include <VornPublisher.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

using namespace VornNet;
using namespace VornTest;
using Json = nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;

namespace {

const char cTopicOfA[] = "topic = builds=pipe:buildd\n";
const char cFollowedByB[] = "follow = builds@a\n";

/** A service on host `a`, and `vornnet subscribe` on host `b`. */
class TopicTest : public testing::Test {
protected:
    TopicTest() {
        std::filesystem::create_directories(RelayStage::pathOf("history"));
        m_service = startService();
        startRelay("a");
        startRelay("b");
    }

    void startRelay(const std::string& sHost) {
        m_stage.startRelay(sHost, sHost == "a" ? cTopicOfA : cFollowedByB);
    }

    void killRelay(const std::string& sHost) { m_stage.endRelay(sHost, SIGKILL); }

    static ChildProcess startService() {
        ChildProcess service = ChildProcess::spawnRole("relay_publisher", RelayStage::pathOf("history"));
        service.readLine();
        return service;
    }

    void killService() {
        m_service->kill(SIGKILL);
        m_service->wait();
        m_service.reset();
    }

    /** @return the position after what was published. */
    std::string publish(int nCount, std::size_t nBytes = 10) {
        m_service->writeLine(std::to_string(nCount) + " " + std::to_string(nBytes));
        return m_service->readLine();
    }

    static ChildProcess subscribe(const std::vector<std::string>& more) {
        std::vector<std::string> all{"b",      VORNTEST_TOOL, "subscribe", "pipe:builds@a", "builds",
                                     "--json", "--content",   "int",       "--start",       "oldest"};
        all.insert(all.end(), more.begin(), more.end());
        return ChildProcess::spawnRoleWith({}, "relay_command", all);
    }

    /** Reads up to an event, and expects each once, in order, with its own content. */
    void expectEventsUpTo(ChildProcess& subscriber, const std::string& sPosition) {
        Json line;
        do {
            do
                line = Json::parse(subscriber.readLine(std::chrono::seconds(30)));
            while (line["event"] == "state");
            ASSERT_EQ(line["event"], "event") << line;
            ASSERT_EQ(line["number"], ++m_nLast) << line;
            ASSERT_EQ(line["values"][0]["value"], m_nLast) << line;
        } while (line["position"] != sPosition);
    }

    RelayStage m_stage;
    std::optional<ChildProcess> m_service;
    std::uint64_t m_nLast = 0;
};

} // namespace

/** Publishes as many events as each line says, each with its number and so many bytes more. */
KIT_ROLE(relay_publisher) {
    RelayStage::enterHost("a");
    VornPublisher::Options options;
    options.sDirectory = args.at(0);
    options.nHistoryBytes = 4UL * 1024 * 1024;
    VornPublisher publisher("pipe:buildd", {"builds"}, options);
    std::cout << "publishes" << std::endl;
    int nCount = 0;
    for (std::size_t nBytes = 0; std::cin >> nCount >> nBytes;) {
        for (; nCount > 0; --nCount) {
            const auto nNumber = static_cast<int>(publisher.position("builds").nNumber + 1);
            publisher.publish("builds", [&](VornConnection& content) {
                content.transfer(nNumber);
                content.transfer(VornString(nBytes, 'x'));
            });
        }
        std::cout << publisher.position("builds").text() << std::endl;
    }
    return 0;
}

TEST_F(TopicTest, EventsHaveTheSameNumbersOnTheOtherHost_WhateverIsKilledMeanwhile) {
    ChildProcess subscriber = subscribe({"--position-file", RelayStage::pathOf("position")});
    const std::pair<std::function<void()>, std::function<void()>> killed[] = {
        {[this] { killRelay("a"); }, [this] { startRelay("a"); }},
        {[this] { killRelay("b"); }, [this] { startRelay("b"); }},
        {[this] { m_stage.killEngine(); }, [this] { m_stage.startEngine(); }},
        {[this] { killService(); }, [this] { m_service = startService(); }}};
    for (const auto& [kill, start] : killed) {
        expectEventsUpTo(subscriber, publish(20));
        std::string sLast = publish(500); // some of them are under way when it is killed
        kill();
        if (m_service)
            sLast = publish(50);
        start();
        expectEventsUpTo(subscriber, sLast);
    }

    subscriber.kill(SIGTERM);
    subscriber.wait();
    const std::string sMissed = publish(3, 900'000); // nearly what the engine takes
    killRelay("b");
    startRelay("b");
    ChildProcess again = subscribe({"--position-file", RelayStage::pathOf("position")});
    expectEventsUpTo(again, sMissed);
    EXPECT_THAT(m_stage.run("a", {"status"}).first,
                HasSubstr("topic builds at pipe:buildd: connected, " + sMissed + "\n"));
    EXPECT_THAT(m_stage.run("b", {"status"}).first,
                HasSubstr("topic builds@a at pipe:builds@a: open, " + sMissed + "\n"));
    for (const char* szHost : {"a", "b"})
        EXPECT_THAT(
            RelayStage::metricsOf(szHost),
            AllOf(HasSubstr("topic_events{topic=\"builds\",host=\"a\"} " + std::to_string(m_nLast) + "\n"),
                  HasSubstr("topic_failing{topic=\"builds\",host=\"a\"} 0\n")));
}

TEST_F(TopicTest, TopicThatIsTakenOutAndAddedByReloads_GoesOnWhereItWas) {
    ChildProcess subscriber = subscribe({});
    expectEventsUpTo(subscriber, publish(3));
    for (const auto& [szHost, szSettings] : {std::pair("a", cTopicOfA), std::pair("b", cFollowedByB)}) {
        SCOPED_TRACE(szHost);
        const auto hasTopic = [&] {
            return m_stage.run(szHost, {"status"}).first.find("topic builds") != std::string::npos;
        };
        m_stage.reloadRelay(szHost, "");
        EXPECT_TRUE(awaitCondition([&] { return !hasTopic(); }));
        const std::string sLast = publish(20);
        m_stage.reloadRelay(szHost, szSettings);
        EXPECT_TRUE(awaitCondition(hasTopic));
        expectEventsUpTo(subscriber, sLast);
    }
}
