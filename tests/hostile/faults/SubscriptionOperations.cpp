// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for publisher, subscriber, position and exchange.

#include "Links.h"
#include "Operations.h"
#include "Peers.h"
#include "Sandbox.h"

#include <VornExchange.h>
#include <VornMetrics.h>
#include <VornPublisher.h>
#include <VornSubscriber.h>

#include <array>
#include <chrono>
#include <optional>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace VornNet;
using namespace std::chrono_literals;

namespace VornTest {

namespace {

using Clock = std::chrono::steady_clock;

const VornString cAddress = "pipe:faults";
const VornString cTopic = "builds";
const VornString cLongTopic = "a.topic.that.does.not.fit.into.the.text.object";
const VornString cReason = "a reason that does not fit into the text object itself";
const std::string cRequest =
    Link::onWire(1) + std::string(12, '\0') + Link::onWire(2) + std::string(20, '\0');

/**
 * What a service answers: admitted, history 1, first event 1, one event, a beat of a second; and the event.
 */
const std::string cAnswer = std::string("\0\1\0\0", 4) + std::string("\0\0\0\0\0\0\0\1", 8) +
                            std::string("\0\0\0\0\0\0\0\1", 8) + std::string("\0\0\0\0\0\0\0\1", 8) +
                            Link::onWire(1'000) + Link::onWire(1) + Link::onWire(8) +
                            std::string("\0\0\0\0\0\0\0\1", 8);

/** How long something is waited for that may never come, and that is sure to come. */
constexpr int cMoment = 50;
constexpr int cPatience = 10'000;

/** Receives up to @p size bytes, each within @p limit ms. @return whether all have come */
bool takes(int fd, std::size_t size, int limit = cMoment) {
    std::array<char, 256> bytes;
    while (size > 0) {
        pollfd entry{fd, POLLIN, 0};
        const ssize_t count =
            ::poll(&entry, 1, limit) == 1 ? ::recv(fd, bytes.data(), std::min(size, bytes.size()), 0) : 0;
        if (count <= 0)
            return false;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/** Subscribes by hand and waits for the first event. @return whether it has come */
bool isServed(int limit = cPatience) {
    try {
        const UniqueFd client = unixConnect(pipePath("faults"));
        sendAll(client.get(), cTopic + "\r\n");
        if (!takes(client.get(), 1, limit))
            return false;
        sendAll(client.get(), cRequest);
        return takes(client.get(), cAnswer.size(), limit);
    } catch (const std::exception&) {
        return false;
    }
}

/** Serves one subscriber by hand, if one comes. */
void serveOne(int listener) {
    pollfd entry{listener, POLLIN, 0};
    if (::poll(&entry, 1, 10) != 1)
        return;
    try {
        const UniqueFd client = acceptClient(listener);
        if (!takes(client.get(), cTopic.size() + 2))
            return;
        sendAll(client.get(), "+");
        if (!takes(client.get(), cRequest.size()))
            return;
        sendAll(client.get(), cAnswer);
        takes(client.get(), 1);       // until the subscriber ends it, or for a while
    } catch (const std::exception&) { // NOLINT: it comes again
    }
}

VornPublisher::Options publisherOptions(const VornString& sDirectory = {}) {
    VornPublisher::Options options;
    options.nHistoryBytes = 4096;
    options.sDirectory = sDirectory;
    options.onSubscribe = [](const VornPublisher::Subscriber&) { return VornString(); };
    options.onLeave = [](const VornPublisher::Subscriber&, VornPublisher::Leaving, int) {};
    return options;
}

/** A publisher with one event and one subscriber. */
class Publishing {
public:
    Publishing() {
        m_publisher.emplace(cAddress, std::vector<VornString>{cTopic}, publisherOptions());
        m_publisher->publish(cTopic, [](VornConnection&) {});
        m_client = unixConnect(pipePath("faults"));
        sendAll(m_client.get(), cTopic + "\r\n");
        takes(m_client.get(), 1, cPatience);
        sendAll(m_client.get(), cRequest);
        takes(m_client.get(), cAnswer.size(), cPatience);
    }

    VornPublisher& publisher() { return *m_publisher; }

    void destroy() { m_publisher.reset(); }

    void leave() { m_client.reset(); }

private:
    std::optional<VornPublisher> m_publisher;
    UniqueFd m_client;
};

template <typename Do>
Operation publisherRow(std::vector<std::string> names, const std::string& detail, unsigned allowed,
                       Do operation) {
    return {std::move(names), detail, allowed, [=](Trial& trial) {
                Publishing publishing;
                trial.attempt([&] { operation(publishing.publisher()); });
                trial.expect(isServed(), "the publisher serves nobody any more");
            }};
}

Operation opening(const std::string& detail, const VornString& sDirectory) {
    return {{"VornPublisher::VornPublisher"}, detail, startsAThread, [=](Trial& trial) {
                const VornPublisher::Options options = publisherOptions(sDirectory);
                std::optional<VornPublisher> publisher;
                trial.attemptOnAllThreads([&] {
                    publisher.emplace(cAddress, std::vector<VornString>{cTopic, cLongTopic}, options);
                });
            }};
}

Operations publisherRows() {
    return {
        opening("histories in memory", ""),
        opening("histories in files", "/opt"),
        {{"VornPublisher, a subscription"},
         "",
         doesWithout,
         [](Trial& trial) {
             Publishing publishing;
             // A client is left without an answer, or cut; it comes again.
             trial.attemptOnOtherThreads([] {
                 const auto end = Clock::now() + 200ms;
                 while (!isServed(cMoment) && Clock::now() < end) {
                 }
             });
             trial.expect(isServed(), "the publisher serves nobody any more");
             publishing.leave();
             trial.expect(
                 awaitCondition([&] { return publishing.publisher().statistics().nSubscribers == 0; }),
                 "one who has left is a subscriber still");
         }},
        {{"VornPublisher::~VornPublisher"},
         "",
         doesWithout,
         [](Trial& trial) {
             Publishing publishing;
             trial.attemptOnAllThreads([&] { publishing.destroy(); });
         }},
        {{"VornPublisher::stop"},
         "",
         doesWithout,
         [](Trial& trial) {
             Publishing publishing;
             trial.attemptOnAllThreads([&] { publishing.publisher().stop(1s); });
         }},
        publisherRow({"VornPublisher::getAddress", "VornPublisher::statistics", "VornPublisher::nameOf"}, "",
                     allocatesNothing,
                     [](VornPublisher& publisher) {
                         publisher.getAddress();
                         publisher.statistics();
                         VornPublisher::nameOf(VornPublisher::Leaving::closed);
                     }),
        publisherRow({"VornPublisher::position"}, "", allocatesNothing,
                     [](VornPublisher& publisher) { publisher.position(cTopic); }),
        publisherRow({"VornPublisher::addTopic"}, "", throwsBadAlloc | throwsVornException,
                     [](VornPublisher& publisher) { publisher.addTopic(cLongTopic); }),
        publisherRow({"VornPublisher::publish"}, "short content", allocatesNothing,
                     [](VornPublisher& publisher) { publisher.publish(cTopic, [](VornConnection&) {}); }),
        // As everywhere, a typed operation that fails for want of memory cannot always make its exception.
        publisherRow({"VornPublisher::publish"}, "long content", throwsVornException | endsProcess,
                     [](VornPublisher& publisher) {
                         static const std::array<char, 1000> bytes{};
                         publisher.publish(cTopic, [](VornConnection& content) {
                             VornExchange::transferBlock(content, bytes.data(), bytes.size());
                         });
                     }),
        publisherRow({"VornPublisher::subscribers"}, "", throwsBadAlloc,
                     [](VornPublisher& publisher) { publisher.subscribers(); }),
        publisherRow({"VornPublisher::drop"}, "", throwsBadAlloc,
                     [](VornPublisher& publisher) { publisher.drop(1, cReason); }),
        publisherRow({"VornPublisher::flush"}, "", throwsBadAlloc,
                     [](VornPublisher& publisher) { publisher.flush(1s); }),
    };
}

VornSubscriber::Options subscriberOptions(bool bOwnThread) {
    VornSubscriber::Options options;
    options.bOwnThread = bOwnThread;
    options.firstPause = options.longestPause = 2ms;
    options.answerLimit = 50ms;
    options.onState = [](const VornSubscriber::Status&) {};
    return options;
}

template <typename Do>
Operation subscriberRow(std::vector<std::string> names, const std::string& detail, unsigned allowed,
                        Do operation) {
    return {std::move(names), detail, allowed, [=](Trial& trial) {
                VornSubscriber subscriber(
                    cAddress, cTopic, [](VornConnection&, const VornSubscriber::Event&) {},
                    subscriberOptions(false));
                trial.attempt([&] { operation(subscriber); });
            }};
}

/** From connecting to the event, by the subscriber's thread or in the program's own loop. */
Operation subscribing(bool bOwnThread) {
    return {{bOwnThread ? "VornSubscriber, an event" : "VornSubscriber::dispatch"},
            "",
            doesWithout,
            [=](Trial& trial) {
                const UniqueFd listener = listenAtPipe();
                std::atomic<int> calls = 0;
                VornSubscriber subscriber(
                    cAddress, cTopic, [&](VornConnection&, const VornSubscriber::Event&) { ++calls; },
                    subscriberOptions(bOwnThread));
                std::optional<WatchedThread> driver;
                std::atomic<bool> isOver = false;
                const auto drive = [&] {
                    while (!isOver)
                        subscriber.dispatch();
                };
                const auto serve = [&] {
                    const auto end = Clock::now() + 200ms;
                    while (calls == 0 && Clock::now() < end)
                        serveOne(listener.get());
                };
                if (!bOwnThread)
                    driver.emplace(drive);
                trial.attemptOnOtherThreads(serve);
                for (int i = 0; i < 100 && calls == 0; ++i)
                    serveOne(listener.get());
                isOver = true;
                driver.reset();
                subscriber.stop();
                trial.expect(calls == 1, "the event was not called for once");
            }};
}

Operations subscriberRows() {
    return {
        {{"VornSubscriber::VornSubscriber"},
         "",
         startsAThread,
         [](Trial& trial) {
             VornSubscriber::Options options = subscriberOptions(true);
             options.sPositionFile = "/opt/a.position.file.with.a.long.name";
             std::optional<VornSubscriber> subscriber;
             trial.attemptOnAllThreads([&] {
                 subscriber.emplace(
                     cAddress, cTopic, [](VornConnection&, const VornSubscriber::Event&) {}, options);
             });
         }},
        {{"VornSubscriber::~VornSubscriber"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             std::optional<VornSubscriber> subscriber;
             subscriber.emplace(cAddress, cTopic, [](VornConnection&, const VornSubscriber::Event&) {});
             trial.attempt([&] { subscriber.reset(); });
         }},
        subscribing(true),
        subscribing(false),
        subscriberRow({"VornSubscriber::getHandle", "VornSubscriber::status", "VornSubscriber::position",
                       "VornSubscriber::statistics", "VornSubscriber::stop", "VornSubscriber::nameOf"},
                      "", allocatesNothing,
                      [](VornSubscriber& subscriber) {
                          subscriber.getHandle();
                          subscriber.status();
                          subscriber.position();
                          subscriber.statistics();
                          subscriber.stop();
                          VornSubscriber::nameOf(VornSubscriber::State::away);
                      }),
        subscriberRow({"VornSubscriber::setAddress"}, "", throwsBadAlloc,
                      [](VornSubscriber& subscriber) {
                          subscriber.setAddress("pipe:a.name.that.is.longer.than.the.text.object");
                      }),
    };
}

/** A row for an operation of an established connection, with bytes waiting to be read. */
template <typename Do>
Operation exchangeRow(Link::Kind kind, std::vector<std::string> names, const std::string& detail,
                      unsigned allowed, const std::string& waiting, Do operation) {
    return {std::move(names), Link::nameOf(kind) + detail, allowed, [=](Trial& trial) {
                Link link(kind, waiting);
                trial.attempt([&] { operation(link.connection()); });
            }};
}

Operations socketRows(Link::Kind kind) {
    using Connection = VornConnection;
    const std::string zeros(64, '\0');
    return {
        exchangeRow(kind, {"VornExchange::getHandle", "VornExchange::setTimeLimit"}, "", allocatesNothing, "",
                    [](Connection& c) {
                        VornExchange::getHandle(c);
                        VornExchange::setTimeLimit(c, 1s);
                    }),
        exchangeRow(kind, {"VornExchange::limited"}, "", throwsBadAlloc, "",
                    [](Connection& c) { VornExchange::limited(c, 1s); }),
        exchangeRow(kind, {"VornExchange::receiveService"}, "", throwsBadAlloc, cLongTopic + "\r\n",
                    [](Connection& c) { VornExchange::receiveService(c, 1s); }),
        exchangeRow(kind, {"VornExchange::answerService"}, "", allocatesNothing, "",
                    [](Connection& c) { VornExchange::answerService(c, true); }),
        exchangeRow(kind, {"VornExchange::transferError"}, "", allocatesNothing, "",
                    [](Connection& c) { VornExchange::transferError(c, cReason); }),
        exchangeRow(kind, {"VornExchange::receiveACK"}, "", allocatesNothing, std::string("\0\1\0\0", 4),
                    [](Connection& c) { VornExchange::receiveACK(c, true); }),
        exchangeRow(kind, {"VornExchange::receiveACK"}, ", a reason",
                    throwsVornException | throwsBadAlloc | endsProcess,
                    std::string("\0\1\xff\xff", 4) + Link::onWire(static_cast<int>(cReason.size())) + cReason,
                    [](Connection& c) { VornExchange::receiveACK(c, true); }),
        exchangeRow(kind,
                    {"VornExchange::transferInt64", "VornExchange::transferUInt64",
                     "VornExchange::transferDouble", "VornExchange::transferBlock"},
                    "", allocatesNothing, "",
                    [](Connection& c) {
                        VornExchange::transferInt64(c, 1);
                        VornExchange::transferUInt64(c, 1);
                        VornExchange::transferDouble(c, 1);
                        VornExchange::transferBlock(c, "block", 5);
                    }),
        exchangeRow(
            kind,
            {"VornExchange::receiveInt64", "VornExchange::receiveUInt64", "VornExchange::receiveDouble"}, "",
            allocatesNothing, zeros,
            [](Connection& c) {
                VornExchange::receiveInt64(c);
                VornExchange::receiveUInt64(c);
                VornExchange::receiveDouble(c);
            }),
        exchangeRow(kind, {"VornExchange::receiveBlock"}, "", throwsBadAlloc,
                    Link::onWire(40) + std::string(40, '\0'),
                    [](Connection& c) { VornExchange::receiveBlock(c, 100); }),
    };
}

Operations otherRows() {
    const auto isOpened = [](const VornString& sService) {
        return [=](Trial& trial) {
            const Service service(listenAtPipe(), [](int client) {
                std::array<char, 64> line;
                pollfd entry{client, POLLIN, 0};
                if (::poll(&entry, 1, 1'000) == 1 && ::recv(client, line.data(), line.size(), 0) > 0)
                    sendAll(client, "+");
            });
            trial.attempt([&] { VornExchange::open(cAddress, sService, 1s); });
        };
    };
    return {
        {{"VornPosition::text"},
         "",
         throwsBadAlloc,
         [](Trial& trial) { trial.attempt([] {
                                VornPosition{1, 2}.text();
                            }); }},
        {{"VornPosition::fromText"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             const VornString sText = VornPosition{1, 2}.text();
             trial.attempt([&] { VornPosition::fromText(sText); });
         }},
        {{"VornMetrics::VornMetrics", "VornMetrics::~VornMetrics"},
         "",
         throwsBadAlloc,
         [](Trial& trial) { trial.attempt([] { const VornMetrics metrics; }); }},
        {{"VornMetrics::add"},
         "a number",
         throwsBadAlloc,
         [](Trial& trial) {
             const VornMetrics::Labels labels = {{"name", cLongTopic}};
             VornMetrics metrics;
             trial.attempt([&] { metrics.add("jobs", VornMetrics::Type::gauge, cReason, labels, 1); });
             trial.expect(!trial.hasThrown() || metrics.text() == "# EOF\n", "it has been added in part");
         }},
        {{"VornMetrics::text"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             VornMetrics metrics;
             metrics.add("jobs", VornMetrics::Type::gauge, cReason, {{"name", cLongTopic}}, 1);
             trial.attempt([&] { metrics.text(); });
         }},
        {{"VornExchange::open"}, "no service", throwsBadAlloc | throwsVornException, isOpened("")},
        {{"VornExchange::open"}, "a service", throwsBadAlloc | throwsVornException, isOpened(cLongTopic)},
        exchangeRow(Link::Kind::buffer, {"VornExchange::readToEnd"}, "", throwsBadAlloc, "some bytes",
                    [](VornConnection& c) { VornExchange::readToEnd(c, 100); }),
    };
}

} // namespace

Operations subscriptionOperations() {
    Operations rows;
    for (const Operations& some : {publisherRows(), subscriberRows(), socketRows(Link::Kind::acceptedPipe),
                                   socketRows(Link::Kind::acceptedTcp), otherRows()})
        rows.insert(rows.end(), some.begin(), some.end());
    return rows;
}

} // namespace VornTest
