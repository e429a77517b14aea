// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// A signal interrupts each blocking call of a whole exchange, once and several times in a row. By contract no
// call is taken up again: what comes of it is the end that is specified, with exactly those bytes on the wire
// that were written before; and whoever begins the exchange again gets the same bytes as without the signal.

#include "Await.h"
#include "Exchange.h"
#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Scenarios.h"

#include <algorithm>
#include <cerrno>
#include <set>

using namespace VornTest;

namespace {

bool isBlocking(const std::string& function) {
    static const std::set<std::string> blocking = {"accept", "connect", "poll",   "recv",  "recvfrom",
                                                   "select", "send",    "sendto", "usleep"};
    return blocking.count(function) == 1;
}

constexpr int cMostTimes = 3;

/** The calls that an exchange makes when nothing disturbs it. */
std::vector<CallRecord> callsOf(const Exchange& exchange) {
    std::vector<CallRecord> calls;
    exchange.run([&](const std::function<std::string()>& action) {
        const CallTrace trace(CallTrace::Scope::CallingThread);
        const Outcome outcome = outcomeOf(action);
        calls = trace.records();
        return outcome;
    });
    return calls;
}

/** A call of an exchange that is interrupted. */
struct Site {
    std::string function;
    int nth = 0;
    std::size_t written = 0; ///< how many bytes the exchange has written before
};

std::vector<Site> blockingSites(const Exchange& exchange) {
    std::vector<Site> sites;
    std::size_t written = 0;
    for (const CallRecord& call : callsOf(exchange)) {
        const auto earlier = std::count_if(sites.begin(), sites.end(),
                                           [&](const Site& site) { return site.function == call.name; });
        if (isBlocking(call.name))
            sites.push_back({call.name, static_cast<int>(earlier) + 1, written});
        if ((call.name == "send" || call.name == "sendto") && call.result > 0)
            written += static_cast<std::size_t>(call.result);
    }
    return sites;
}

class InterruptionOfExchange : public LeakCheckedTest, public testing::WithParamInterface<std::size_t> {
protected:
    void SetUp() override {
        LeakCheckedTest::SetUp();
        useInterposition();
    }

    static bool isPrefix(const std::vector<std::string>& some, const std::vector<std::string>& all) {
        return some.size() < all.size() && std::equal(some.begin(), some.end(), all.begin());
    }

    const Exchange m_exchange = allExchanges()[GetParam()];
};

TEST_P(InterruptionOfExchange, EndsItWithExactlyTheBytesThatWereWrittenBefore) {
    const std::vector<Site> sites = blockingSites(m_exchange);
    int leaked = 0;
    for (const Site& site : sites) {
        const Exchanged exchanged = m_exchange.run([&](const std::function<std::string()>& action) {
            const FaultRule rule(site.function, EINTR, site.nth, 1, currentTid());
            return outcomeOf(action);
        });
        const std::string what = site.function + " number " + std::to_string(site.nth);
        EXPECT_EQ(m_exchange.interrupted(site.function, site.nth), exchanged.outcome) << what;
        EXPECT_EQ(hex(m_exchange.undisturbed.arrived.substr(0, site.written)), hex(exchanged.arrived))
            << what;
        EXPECT_TRUE(isPrefix(exchanged.read, m_exchange.undisturbed.read)) << what;
        leaked += site.function == "sendto" ? 1 : 0; // by contract, of a datagram that could not be sent
    }
    EXPECT_GT(sites.size(), 1U);
    expectDescriptorLeak(leaked);
}

TEST_P(InterruptionOfExchange, LetsTheOneWhoBeginsAgainHaveTheSameBytes) {
    for (const Site& site : m_exchange.isRepeatable ? blockingSites(m_exchange) : std::vector<Site>()) {
        for (const int times : {1, cMostTimes}) {
            int attempts = 0;
            const Exchanged exchanged = m_exchange.run([&](const std::function<std::string()>& action) {
                const FaultRule rule(site.function, EINTR, site.nth, times, currentTid());
                Outcome outcome;
                do {
                    outcome = outcomeOf(action);
                } while (++attempts <= cMostTimes && outcome != Outcome{});
                return outcome;
            });
            EXPECT_EQ(m_exchange.undisturbed, exchanged)
                << site.function << " number " << site.nth << ", " << times << " times";
            EXPECT_EQ(times + 1, attempts) << site.function << " number " << site.nth;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Exchanges, InterruptionOfExchange,
                         testing::Range<std::size_t>(0, allExchanges().size()), [](const auto& test) {
                             std::string name = allExchanges()[test.param].name;
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

} // namespace
