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

/** An operation of a publisher, which must serve others afterwards. */
template <typename Do>
std::function<void(Trial&)> publishing(Do operation) {
    return [=](Trial& trial) {
        Publishing publishing;
        trial.attempt([&] { operation(publishing.publisher()); });
        trial.expect(isServed(), "the publisher serves nobody any more");
    };
}

std::function<void(Trial&)> opening(const VornString& sDirectory) {
    return [options = publisherOptions(sDirectory)](Trial& trial) {
        std::optional<VornPublisher> publisher;
        trial.attemptOnAllThreads([&] {
            publisher.emplace(cAddress, std::vector<VornString>{cTopic, cLongTopic}, options);
        });
    };
}

void addPublisher(Operations& table) {
    using P = VornPublisher;
    table.add("VornPublisher::VornPublisher (histories in memory)", startsAThread, opening(""));
    table.add("VornPublisher::VornPublisher (histories in files)", startsAThread, opening("/opt"));
    table.add("VornPublisher (a subscription)", doesWithout, [](Trial& trial) {
        Publishing publishing;
        // A client is left without an answer, or cut; it comes again.
        trial.attemptOnOtherThreads([] {
            const auto end = Clock::now() + 200ms;
            while (!isServed(cMoment) && Clock::now() < end) {
            }
        });
        trial.expect(isServed(), "the publisher serves nobody any more");
        publishing.leave();
        trial.expect(awaitCondition([&] { return publishing.publisher().statistics().nSubscribers == 0; }),
                     "one who has left is a subscriber still");
    });
    table.add("VornPublisher::~VornPublisher", doesWithout, [](Trial& trial) {
        Publishing publishing;
        trial.attemptOnAllThreads([&] { publishing.destroy(); });
    });
    table.add("VornPublisher::stop", doesWithout, [](Trial& trial) {
        Publishing publishing;
        trial.attemptOnAllThreads([&] { publishing.publisher().stop(1s); });
    });
    table.add("VornPublisher::getAddress, statistics, nameOf, position", allocatesNothing,
              publishing([](P& publisher) {
                  publisher.getAddress();
                  publisher.statistics();
                  P::nameOf(P::Leaving::closed);
                  publisher.position(cTopic);
              }));
    table.add("VornPublisher::addTopic", throwsBadAlloc | throwsVornException,
              publishing([](P& publisher) { publisher.addTopic(cLongTopic); }));
    table.add("VornPublisher::publish (short content)", allocatesNothing,
              publishing([](P& publisher) { publisher.publish(cTopic, [](VornConnection&) {}); }));
    // As everywhere, a typed operation that fails for want of memory cannot always make its exception.
    table.add("VornPublisher::publish (long content)", throwsVornException | endsProcess,
              publishing([](P& publisher) {
                  static const std::array<char, 1000> bytes{};
                  publisher.publish(cTopic, [](VornConnection& content) {
                      VornExchange::transferBlock(content, bytes.data(), bytes.size());
                  });
              }));
    table.add("VornPublisher::subscribers", throwsBadAlloc,
              publishing([](P& publisher) { publisher.subscribers(); }));
    table.add("VornPublisher::drop", throwsBadAlloc,
              publishing([](P& publisher) { publisher.drop(1, cReason); }));
    table.add("VornPublisher::flush", throwsBadAlloc, publishing([](P& publisher) { publisher.flush(1s); }));
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
std::function<void(Trial&)> subscribed(Do operation) {
    return [=](Trial& trial) {
        VornSubscriber subscriber(
            cAddress, cTopic, [](VornConnection&, const VornSubscriber::Event&) {}, subscriberOptions(false));
        trial.attempt([&] { operation(subscriber); });
    };
}

/** From connecting to the event, by the subscriber's thread or in the program's own loop. */
std::function<void(Trial&)> subscribing(bool bOwnThread) {
    return [=](Trial& trial) {
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
    };
}

void addSubscriber(Operations& table) {
    table.add("VornSubscriber::VornSubscriber", startsAThread, [](Trial& trial) {
        VornSubscriber::Options options = subscriberOptions(true);
        options.sPositionFile = "/opt/a.position.file.with.a.long.name";
        std::optional<VornSubscriber> subscriber;
        trial.attemptOnAllThreads([&] {
            subscriber.emplace(
                cAddress, cTopic, [](VornConnection&, const VornSubscriber::Event&) {}, options);
        });
    });
    table.add("VornSubscriber::~VornSubscriber", allocatesNothing, [](Trial& trial) {
        std::optional<VornSubscriber> subscriber;
        subscriber.emplace(cAddress, cTopic, [](VornConnection&, const VornSubscriber::Event&) {});
        trial.attempt([&] { subscriber.reset(); });
    });
    table.add("VornSubscriber (an event)", doesWithout, subscribing(true));
    table.add("VornSubscriber::dispatch", doesWithout, subscribing(false));
    table.add("VornSubscriber::getHandle, status, position, statistics, stop, nameOf", allocatesNothing,
              subscribed([](VornSubscriber& subscriber) {
                  subscriber.getHandle();
                  subscriber.status();
                  subscriber.position();
                  subscriber.statistics();
                  subscriber.stop();
                  VornSubscriber::nameOf(VornSubscriber::State::away);
              }));
    table.add("VornSubscriber::setAddress", throwsBadAlloc, subscribed([](VornSubscriber& subscriber) {
                  subscriber.setAddress("pipe:a.name.that.is.longer.than.the.text.object");
              }));
}

void addExchange(Operations& table, Link::Kind kind) {
    using C = VornConnection;
    const auto add = [&](const char* title, unsigned allowed, const std::string& waiting, auto operation) {
        table.add(title, Link::nameOf(kind), allowed, onLink(kind, waiting, operation));
    };
    const std::string block = Link::onWire(40) + std::string(40, '\0');
    add("VornExchange::getHandle, setTimeLimit", allocatesNothing, "", [](C& c) {
        VornExchange::getHandle(c);
        VornExchange::setTimeLimit(c, 1s);
    });
    add("VornExchange::limited", throwsBadAlloc, "", [](C& c) { VornExchange::limited(c, 1s); });
    add("VornExchange::receiveService", throwsBadAlloc, cLongTopic + "\r\n",
        [](C& c) { VornExchange::receiveService(c, 1s); });
    add("VornExchange::answerService", allocatesNothing, "",
        [](C& c) { VornExchange::answerService(c, true); });
    add("VornExchange::transferError", allocatesNothing, "",
        [](C& c) { VornExchange::transferError(c, cReason); });
    add("VornExchange::receiveACK", allocatesNothing, std::string("\0\1\0\0", 4),
        [](C& c) { VornExchange::receiveACK(c, true); });
    add("VornExchange::receiveACK (a reason)", throwsVornException | throwsBadAlloc | endsProcess,
        std::string("\0\1\xff\xff", 4) + Link::onWire(static_cast<int>(cReason.size())) + cReason,
        [](C& c) { VornExchange::receiveACK(c, true); });
    add("VornExchange::transferInt64, transferUInt64, transferDouble, transferBlock", allocatesNothing, "",
        [](C& c) {
            VornExchange::transferInt64(c, 1);
            VornExchange::transferUInt64(c, 1);
            VornExchange::transferDouble(c, 1);
            VornExchange::transferBlock(c, "block", 5);
        });
    add("VornExchange::receiveInt64, receiveUInt64, receiveDouble", allocatesNothing, std::string(64, '\0'),
        [](C& c) {
            VornExchange::receiveInt64(c);
            VornExchange::receiveUInt64(c);
            VornExchange::receiveDouble(c);
        });
    add("VornExchange::receiveBlock", throwsBadAlloc, block,
        [](C& c) { VornExchange::receiveBlock(c, 100); });
}

void addOthers(Operations& table) {
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
    table.add("VornPosition::text", throwsBadAlloc, [] { VornPosition{1, 2}.text(); });
    table.add("VornPosition::fromText", allocatesNothing, [](Trial& trial) {
        const VornString sText = VornPosition{1, 2}.text();
        trial.attempt([&] { VornPosition::fromText(sText); });
    });
    table.add("VornMetrics::VornMetrics, ~VornMetrics", throwsBadAlloc, [] { const VornMetrics metrics; });
    table.add("VornMetrics::add (a number)", throwsBadAlloc, [](Trial& trial) {
        const VornMetrics::Labels labels = {{"name", cLongTopic}};
        VornMetrics metrics;
        trial.attempt([&] { metrics.add("jobs", VornMetrics::Type::gauge, cReason, labels, 1); });
        trial.expect(!trial.hasThrown() || metrics.text() == "# EOF\n", "it has been added in part");
    });
    table.add("VornMetrics::text", throwsBadAlloc, [](Trial& trial) {
        VornMetrics metrics;
        metrics.add("jobs", VornMetrics::Type::gauge, cReason, {{"name", cLongTopic}}, 1);
        trial.attempt([&] { metrics.text(); });
    });
    table.add("VornExchange::open (no service)", throwsBadAlloc | throwsVornException, isOpened(""));
    table.add("VornExchange::open (a service)", throwsBadAlloc | throwsVornException, isOpened(cLongTopic));
    table.add(
        "VornExchange::readToEnd", throwsBadAlloc,
        onLink(Link::Kind::buffer, "some bytes", [](VornConnection& c) { VornExchange::readToEnd(c, 100); }));
}

} // namespace

void addSubscriptions(Operations& table) {
    addPublisher(table);
    addSubscriber(table);
    addExchange(table, Link::Kind::acceptedPipe);
    addExchange(table, Link::Kind::acceptedTcp);
    addOthers(table);
}

} // namespace VornTest
