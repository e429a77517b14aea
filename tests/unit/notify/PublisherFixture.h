// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_PUBLISHERFIXTURE_H
#define VORNTEST_PUBLISHERFIXTURE_H

#include "AllocationFaults.h"
#include "Await.h"
#include "Failure.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Sandbox.h"
#include "SubscriptionPeers.h"

#include <VornPublisher.h>

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace VornTest {

/** Does it without the n-th block of memory, for each n that it needs. @return what was thrown */
inline std::vector<std::string> withoutEachBlock(const std::function<void()>& work) {
    std::vector<std::string> thrown;
    work(); // so that the kit has looked up the functions that it stands before
    for (int nth = 1; thrown.empty() || thrown.back() != "nothing"; ++nth) {
        thrown.push_back(thrownBy([&] {
            const AllocationFault fault(nth, AllocationFault::Mode::once, AllocationFault::Scope::thisThread);
            work();
        }));
    }
    thrown.pop_back();
    return thrown;
}

/** A writer of these bytes. */
inline VornNet::VornPublisher::Writer writing(const std::string& content) {
    return [content](VornNet::VornConnection& out) {
        long error = 0;
        out.transfer(content.data(), static_cast<long>(content.size()), &error);
        EXPECT_EQ(error, 0);
    };
}

/** What onLeave has been told, one line each. */
class Departures {
public:
    VornNet::VornPublisher::LeaveHandler handler() {
        return [this](const VornNet::VornPublisher::Subscriber& gone, VornNet::VornPublisher::Leaving leaving,
                      int code) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(std::to_string(gone.nId) + " " + VornNet::VornPublisher::nameOf(leaving) + " " +
                              std::to_string(code));
        };
    }

    std::vector<std::string> lines() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    /** The lines, once there are so many; a failure of the test when they do not come. */
    std::vector<std::string> awaited(std::size_t count) const {
        EXPECT_TRUE(await(count)) << lines().size() << " of " << count;
        return lines();
    }

    bool await(std::size_t count) const {
        return awaitCondition([&] { return lines().size() >= count; });
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

class PublisherFixture : public LeakCheckedTest {
protected:
    VornNet::VornPublisher& open(const VornNet::VornPublisher::Options& options = {},
                                 const std::string& address = "pipe:alpha") {
        m_publisher.emplace(address, std::vector<std::string>{"builds", "other"}, options);
        return *m_publisher;
    }

    void TearDown() override {
        m_barrier.open();
        m_publisher.reset();
    }

    VornNet::VornPublisher& publisher() { return *m_publisher; }

    std::string address() const { return m_publisher->getAddress(); }

    bool isAccepting() {
        try {
            connectTo(address());
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }

    std::uint64_t publish(const std::string& content) {
        return publisher().publish("builds", writing(content));
    }

    bool awaitSubscribers(std::size_t count) {
        return awaitCondition([&] { return publisher().statistics().nSubscribers == count; });
    }

    // The handlers' own, which live longer than the publisher.
    Departures m_departures;
    Checkpoint m_barrier;
    std::optional<VornNet::VornPublisher> m_publisher;
};

/** Where publishers keep their histories in the tests, each of which has an /opt of its own. */
inline const std::string historyDirectory = "/opt/histories";

/** Options with histories that are kept in files. */
inline VornNet::VornPublisher::Options keepingHistories() {
    VornNet::VornPublisher::Options options;
    options.sDirectory = historyDirectory;
    return options;
}

class HistoryFixture : public PublisherFixture {
protected:
    void SetUp() override { std::filesystem::create_directory(historyDirectory); }

    void TearDown() override {
        PublisherFixture::TearDown();
        std::filesystem::remove_all(historyDirectory);
    }
};

} // namespace VornTest

#endif
