// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// A service and its clients are killed at random moments and started again. Each client writes a log; in the
// end every log has each event in order, and no gap. The last client has a position file, and may have an
// event again for each of its kills; the others keep their positions with what they make of the events, and
// have each once.

#include "LeakCheckedTest.h"
#include "Process.h"

#include <VornExchange.h>
#include <VornPublisher.h>
#include <VornSubscriber.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornTest;

namespace {

const std::string directory = "/opt/rounds";
constexpr int clients = 4;
constexpr int withFile = 3;
constexpr int rounds = 10;

/** What a client writes down for each event; a gap has the history 0. */
struct Record {
    std::uint64_t history;
    std::uint64_t number;
};

std::string logOf(int client) {
    return directory + "/" + std::to_string(client) + ".log";
}

/** The complete records of a log. What a killed client has written in part is none. */
std::vector<Record> recordsIn(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<Record> records(data.size() / sizeof(Record));
    if (!records.empty())
        std::memcpy(records.data(), data.data(), records.size() * sizeof(Record));
    return records;
}

std::size_t countIn(const std::string& path) {
    std::error_code none;
    const auto size = std::filesystem::file_size(path, none);
    return none ? 0 : size / sizeof(Record);
}

/** Publishes some events each millisecond until its input ends; then tells the last number. */
KIT_ROLE(publishInRounds) {
    VornPublisher::Options options;
    options.sDirectory = directory;
    options.nHistoryBytes = 64UL * 1024 * 1024;
    VornPublisher publisher("pipe:rounds", {"events"}, options);
    std::cout << "ready" << std::endl;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (::poll(&input, 1, 1) == 0) {
        for (int i = 0; i < 5; ++i) {
            const std::uint64_t next = publisher.position("events").nNumber + 1;
            publisher.publish("events",
                              [next](VornConnection& out) { VornExchange::transferUInt64(out, next); });
        }
    }
    std::cout << publisher.position("events").nNumber << std::endl;
    publisher.stop(std::chrono::seconds(30));
    return 0;
}

KIT_ROLE(writeDownInRounds) {
    const std::string path = args.at(0);
    const std::vector<Record> records = recordsIn(path);
    std::filesystem::resize_file(path, records.size() * sizeof(Record));
    const int log = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const auto writeDown = [log](const Record& record) {
        if (::write(log, &record, sizeof record) != sizeof record)
            ::_exit(3);
    };
    VornSubscriber::Options options;
    options.start = VornSubscriber::Start::oldest;
    if (args.at(1) == std::to_string(withFile))
        options.sPositionFile = path + ".position";
    else if (!records.empty())
        options.position = {records.back().history, records.back().number};
    options.onGap = [&](const VornSubscriber::Gap& gap) { writeDown({0, gap.nMissed}); };
    const VornSubscriber subscriber(
        "pipe:rounds", "events",
        [&](VornConnection& content, const VornSubscriber::Event& event) {
            if (VornExchange::receiveUInt64(content) != event.position.nNumber)
                ::_exit(4);
            writeDown({event.position.nHistory, event.position.nNumber});
        },
        options);
    std::string line;
    std::getline(std::cin, line);
    return 0;
}

class KilledSubscriptions : public LeakCheckedTest {
protected:
    void SetUp() override {
        std::filesystem::create_directory(directory);
        for (int client = 0; client < clients; ++client)
            std::ofstream out(logOf(client));
    }

    void TearDown() override { std::filesystem::remove_all(directory); }

    static ChildProcess startService() {
        ChildProcess service = ChildProcess::spawnRole("publishInRounds");
        EXPECT_EQ(service.readLine(), "ready");
        return service;
    }

    static ChildProcess startClient(int client) {
        return ChildProcess::spawnRole("writeDownInRounds", logOf(client), std::to_string(client));
    }

    /** The number of the last event that the client has written down. */
    static std::uint64_t lastOf(int client) {
        const std::vector<Record> records = recordsIn(logOf(client));
        return records.empty() ? 0 : records.back().number;
    }

    /** @param mayRepeat how many events may stand there twice */
    static void expectComplete(int client, std::uint64_t last, int mayRepeat) {
        const std::vector<Record> records = recordsIn(logOf(client));
        std::uint64_t before = 0;
        int repeated = 0;
        for (const Record& record : records) {
            ASSERT_EQ(record.history, records[0].history) << "client " << client << " after " << before;
            if (record.number == before)
                ++repeated;
            else
                ASSERT_EQ(record.number, before + 1) << "client " << client;
            before = record.number;
        }
        ASSERT_EQ(before, last) << "client " << client;
        EXPECT_LE(repeated, mayRepeat) << "client " << client;
    }
};

TEST_F(KilledSubscriptions, MissNothingAndRepeatNothing) {
    const unsigned int seed = std::random_device()();
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    const auto upTo = [&random](int most) { return std::uniform_int_distribution<int>(0, most)(random); };
    ChildProcess service = startService();
    std::vector<ChildProcess> all;
    for (int client = 0; client < clients; ++client)
        all.push_back(startClient(client));
    int killsWithFile = 0;
    for (int round = 0; round < rounds; ++round) {
        const int watched = upTo(clients - 1);
        const std::size_t wanted = countIn(logOf(watched)) + static_cast<std::size_t>(upTo(100));
        ASSERT_TRUE(awaitCondition([&] { return countIn(logOf(watched)) >= wanted; })) << "round " << round;
        const int victim = upTo(clients);
        ChildProcess& process = victim == clients ? service : all[static_cast<std::size_t>(victim)];
        process.kill(SIGKILL);
        killsWithFile += victim == withFile ? 1 : 0;
        ASSERT_EQ(process.wait(), 128 + SIGKILL) << "round " << round;
        process = victim == clients ? startService() : startClient(victim);
    }
    // Whoever is not subscribed when the service stops gets the rest from the next one, and there is none.
    for (int client = 0; client < clients; ++client) {
        const std::size_t wanted = countIn(logOf(client)) + 1;
        ASSERT_TRUE(awaitCondition([&] { return countIn(logOf(client)) >= wanted; })) << "client " << client;
    }
    service.closeInput();
    const std::uint64_t last = std::stoull(service.readLine());
    std::printf("%llu events\n", static_cast<unsigned long long>(last));
    EXPECT_EQ(service.wait(), 0);
    for (int client = 0; client < clients; ++client) {
        EXPECT_TRUE(awaitCondition([&] { return lastOf(client) >= last; }));
        all[static_cast<std::size_t>(client)].closeInput();
        EXPECT_EQ(all[static_cast<std::size_t>(client)].wait(), 0);
        expectComplete(client, last, client == withFile ? killsWithFile : 0);
    }
}

} // namespace
