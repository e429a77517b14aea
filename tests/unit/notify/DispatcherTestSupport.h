// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_DISPATCHERTESTSUPPORT_H
#define VORNTEST_DISPATCHERTESTSUPPORT_H

#include "Await.h"
#include "ClockShift.h"
#include "Failure.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Sandbox.h"

#include <VornDispatcher.h>
#include <VornException.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

/** @file
 *  Proxies and result handlers for tests of the dispatcher; its peers are plain sockets.
 */
namespace VornTest {

using VornNet::VornConnection;
using VornNet::VornDispatcher;
using VornNet::VornException;
using VornNet::VornNotification;
using VornNet::VornProxyDependent;
using Outcome = VornDispatcher::Outcome;
using Result = VornDispatcher::Result;

/** A proxy that writes the bytes it was made with. */
class BytesProxy : public VornProxyDependent {
public:
    explicit BytesProxy(const std::string& sAddress, std::string sContent = {}, long hDependent = 7)
        : VornProxyDependent(sAddress, hDependent), m_sContent(std::move(sContent)) {}

    void addContent(VornConnection& connection, const VornNotification& /*notification*/) override {
        if (!m_sContent.empty())
            connection.put(m_sContent.data(), static_cast<int>(m_sContent.size()));
    }

private:
    std::string m_sContent;
};

/** A proxy whose content is what a function writes. */
class WritingProxy : public VornProxyDependent {
public:
    WritingProxy(const std::string& sAddress, std::function<void(VornConnection&)> write)
        : VornProxyDependent(sAddress, 7), m_write(std::move(write)) {}

    void addContent(VornConnection& connection, const VornNotification& /*notification*/) override {
        m_write(connection);
    }

private:
    std::function<void(VornConnection&)> m_write;
};

/** Handle 7 as it travels. */
inline const std::string cHandle = bytes("00 00 00 07 00 00 00 00");

/** What a result tells, but for its time and what it was about. */
inline std::string summaryOf(const Result& result) {
    return VornDispatcher::nameOf(result.outcome) + std::string(" ") + std::to_string(result.nCode) + ", " +
           std::to_string(result.nTries) + " tries, " + std::to_string(result.nDoubtfulTries) + " doubtful";
}

/** Keeps what a dispatcher tells. */
class Results {
public:
    VornDispatcher::ResultHandler handler() {
        return [this](const Result& result) {
            const std::lock_guard lock(m_mutex);
            m_results.push_back(result);
            m_changed.notify_all();
        };
    }

    /** @return the results so far, once there are @p count, or a failure of the test. */
    std::vector<Result> await(std::size_t count, std::chrono::milliseconds limit = defaultLimit) {
        std::unique_lock lock(m_mutex);
        EXPECT_TRUE(m_changed.wait_for(lock, limit, [&] { return m_results.size() >= count; }))
            << m_results.size() << " of " << count << " results";
        return m_results;
    }

    /** @return the only result there is to be. */
    Result awaitOne() {
        std::vector<Result> results = await(1);
        EXPECT_EQ(results.size(), 1U);
        return results.empty() ? Result() : results.front();
    }

    std::vector<Result> now() {
        const std::lock_guard lock(m_mutex);
        return m_results;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Result> m_results;
};

/** The fixture of all suites of the dispatcher. */
class DispatcherTest : public LeakCheckedTest {
protected:
    /** Options with a handler that keeps the results, and perhaps with another one changed. */
    VornDispatcher::Options
    optionsWithResults(const std::function<void(VornDispatcher::Options&)>& change = {}) {
        VornDispatcher::Options options;
        options.onResult = m_results.handler();
        if (change)
            change(options);
        return options;
    }

    /** The same, with so much room for one address. */
    VornDispatcher::Options optionsWithRoomFor(std::size_t nQueueLimit, VornDispatcher::Overflow overflow) {
        return optionsWithResults([&](auto& options) {
            options.nQueueLimit = nQueueLimit;
            options.overflow = overflow;
        });
    }

    /** A sink's socket, made of plain calls. */
    static UniqueFd listen(const std::string& name, int backlog = 64) {
        return unixListen(pipePath(name), backlog);
    }

    /** Terms that let a test see a time limit run out. */
    static VornDispatcher::Terms termsOf(std::chrono::milliseconds timeLimit,
                                         unsigned int nDoubtfulTries = 64) {
        VornDispatcher::Terms terms;
        terms.timeLimit = timeLimit;
        terms.nDoubtfulTries = nDoubtfulTries;
        return terms;
    }

    static std::uint64_t post(VornDispatcher& dispatcher, const std::string& sAddress,
                              const std::string& sContent = {}, long hDependent = 7) {
        BytesProxy proxy(sAddress, sContent, hDependent);
        return dispatcher.post(proxy, VornNotification(1));
    }

    static std::uint64_t postWith(const VornDispatcher::Terms& terms, VornDispatcher& dispatcher,
                                  const std::string& sAddress, const std::string& sContent = {}) {
        BytesProxy proxy(sAddress, sContent);
        return dispatcher.post(proxy, VornNotification(1), terms);
    }

    /** Lets all time limits run out once so much has been tried, which may take any time. */
    static void expireAfter(std::uint64_t tries, const VornDispatcher& dispatcher) {
        EXPECT_TRUE(awaitCondition([&] { return dispatcher.statistics().nTries >= tries; }));
        const ClockShift shift(CLOCK_MONOTONIC);
        ClockShift::set(std::chrono::hours(1));
        EXPECT_TRUE(awaitCondition([&] { return dispatcher.statistics().nQueued == 0; }));
    }

    /** Takes one notification as a sink that reads to the end does. @return its bytes */
    static std::string takeOne(int listener) {
        const UniqueFd client = acceptClient(listener);
        return receiveToEnd(client.get());
    }

    Results m_results;
};

} // namespace VornTest

namespace VornNet {

inline void PrintTo(VornDispatcher::Outcome outcome, std::ostream* out) {
    *out << VornDispatcher::nameOf(outcome);
}

} // namespace VornNet

#endif
