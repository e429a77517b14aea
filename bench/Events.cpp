// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "Sockets.h"

#include <VornPublisher.h>
#include <VornSubscriber.h>

#include <array>
#include <atomic>
#include <cstring>
#include <vector>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <zmq.h>

/**
 * Events of 16 bytes, from the first one that is published until the last one has come. The limit sends as
 * many bytes as the frames have, by one send() for each event, over a socket that stands.
 */
namespace Bench {

namespace {

constexpr int cContent = 16;
constexpr int cFrame = 32;
constexpr int cBurst = 10'000;
constexpr int cManySubscribers = 1'000;
constexpr int cManyEvents = 1;

/** Where the receiving thread tells that all has come. */
class Arrival {
public:
    /** Counts what has come; a total that is waited for is told of. */
    void add(long count) {
        m_sum += count;
        if (m_sum < m_expected.load(std::memory_order_acquire))
            return;
        m_time = Clock::now();
        m_arrived.store(m_sum, std::memory_order_release);
        m_arrived.notify_one();
    }

    /** Says how much more is to come; before it is sent. */
    void expect(long count) { m_expected += count; }

    Clock::time_point await() {
        for (long arrived = m_arrived; arrived < m_expected; arrived = m_arrived)
            m_arrived.wait(arrived);
        return m_time;
    }

private:
    long m_sum = 0; // the receiving thread's
    Clock::time_point m_time;
    std::atomic<long> m_expected{0};
    std::atomic<long> m_arrived{0};
};

/** One socket, a thread that reads whatever comes, and a send() for each event. */
class PosixEvents : public Contender {
public:
    PosixEvents(Road road, int events)
        : m_events(events), m_ends(connectedPair(road)), m_reader([this] { read(); }) {}

    ~PosixEvents() override { ::shutdown(m_ends.server, SHUT_RDWR); }

    Clock::time_point operate() override {
        const std::array<char, cFrame> frame{};
        m_arrival.expect(m_events * long{cFrame});
        for (int i = 0; i < m_events; ++i)
            sendAll(m_ends.server, frame.data(), frame.size());
        return m_arrival.await();
    }

private:
    void read() {
        std::vector<char> bytes(65'536);
        for (ssize_t count = 1; count > 0;) {
            count = ::recv(m_ends.client, bytes.data(), bytes.size(), 0);
            if (count > 0)
                m_arrival.add(count);
        }
        ::close(m_ends.client);
        ::close(m_ends.server);
    }

    const int m_events;
    const Ends m_ends;
    Arrival m_arrival;
    Joined m_reader; // last: it uses the others
};

VornNet::VornPublisher::Options publisherOptions() {
    VornNet::VornPublisher::Options options;
    options.nHistoryBytes = 64UL * 1024 * 1024;
    options.nSubscriberLimit = 2UL * cManySubscribers;
    return options;
}

std::string addressAt(Road road) {
    return road == Road::pipe ? "pipe:bench-events" : "socket:127.0.0.1:0";
}

void publish(VornNet::VornPublisher& publisher, int events) {
    std::array<char, cContent> content{};
    for (int i = 0; i < events; ++i)
        publisher.publish("events", [&](VornNet::VornConnection& out) { out.put(content.data(), cContent); });
}

class PublishedEvents : public Contender {
public:
    PublishedEvents(Road road, int events)
        : m_events(events), m_publisher(addressAt(road), {"events"}, publisherOptions()),
          m_subscriber(m_publisher.getAddress(), "events",
                       [this](VornNet::VornConnection& in, const VornNet::VornSubscriber::Event&) {
                           std::array<char, cContent> content;
                           in.get(content.data(), cContent);
                           m_arrival.add(1);
                       }) {
        while (m_publisher.statistics().nSubscribers == 0)
            ::usleep(1'000);
    }

    Clock::time_point operate() override {
        m_arrival.expect(m_events);
        publish(m_publisher, m_events);
        return m_arrival.await();
    }

private:
    const int m_events;
    Arrival m_arrival;
    VornNet::VornPublisher m_publisher;
    VornNet::VornSubscriber m_subscriber;
};

class ZeroMqEvents : public Contender {
public:
    ZeroMqEvents(Road road, int events)
        : m_events(events), m_context(zmq_ctx_new()), m_push(zmq_socket(m_context, ZMQ_PUSH)),
          m_pull(zmq_socket(m_context, ZMQ_PULL)) {
        const int unlimited = 0; // else it drops or waits where the others keep the events
        zmq_setsockopt(m_push, ZMQ_SNDHWM, &unlimited, sizeof unlimited);
        zmq_setsockopt(m_pull, ZMQ_RCVHWM, &unlimited, sizeof unlimited);
        const std::string address = road == Road::pipe ? "ipc:///opt/bench-events" : "tcp://127.0.0.1:5970";
        checked(zmq_bind(m_push, address.c_str()), "zmq_bind");
        checked(zmq_connect(m_pull, address.c_str()), "zmq_connect");
        m_reader = std::make_unique<Joined>([this] { read(); });
    }

    ~ZeroMqEvents() override {
        checked(zmq_send(m_push, "", 0, 0), "zmq_send");
        m_reader.reset();
        zmq_close(m_push);
        zmq_close(m_pull);
        zmq_ctx_term(m_context);
    }

    Clock::time_point operate() override {
        const std::array<char, cContent> content{};
        m_arrival.expect(m_events);
        for (int i = 0; i < m_events; ++i)
            checked(zmq_send(m_push, content.data(), content.size(), 0), "zmq_send");
        return m_arrival.await();
    }

private:
    void read() {
        std::array<char, cContent> content;
        while (checked(zmq_recv(m_pull, content.data(), content.size(), 0), "zmq_recv") > 0)
            m_arrival.add(1);
    }

    const int m_events;
    void* const m_context;
    void* const m_push;
    void* const m_pull;
    Arrival m_arrival;
    std::unique_ptr<Joined> m_reader;
};

/** Many sockets, of which one thread reads whatever comes. */
class Crowd {
public:
    explicit Crowd(Arrival& arrival)
        : m_arrival(arrival),
          m_poll(static_cast<int>(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1"))) {
        const rlimit limit{4 * cManySubscribers, 4 * cManySubscribers};
        checked(::setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
        watch(m_end.server);
        m_reader = std::make_unique<Joined>([this] { read(); });
    }

    ~Crowd() {
        ::shutdown(m_end.client, SHUT_RDWR);
        m_reader.reset();
        for (const int fd : m_sockets)
            ::close(fd);
        ::close(m_end.client);
        ::close(m_end.server);
        ::close(m_poll);
    }

    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    /** Takes a socket over. */
    void add(int fd) {
        m_sockets.push_back(fd);
        watch(fd);
    }

private:
    void watch(int fd) const {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        checked(::epoll_ctl(m_poll, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
    }

    void read() {
        std::vector<char> bytes(65'536);
        std::array<epoll_event, 64> events{};
        for (;;) {
            const long ready = checked(::epoll_wait(m_poll, events.data(), 64, -1), "epoll_wait");
            for (long i = 0; i < ready; ++i) {
                const int fd = events[static_cast<std::size_t>(i)].data.fd;
                if (fd == m_end.server)
                    return;
                m_arrival.add(::recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT));
            }
        }
    }

    Arrival& m_arrival;
    const int m_poll;
    const Ends m_end = connectedPair(Road::pipe);
    std::vector<int> m_sockets;
    std::unique_ptr<Joined> m_reader;
};

class PosixCrowd : public Contender {
public:
    PosixCrowd() : m_crowd(m_arrival) {
        for (int i = 0; i < cManySubscribers; ++i) {
            std::array<int, 2> pair{};
            checked(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), "socketpair");
            m_senders.push_back(pair[0]);
            m_crowd.add(pair[1]);
        }
    }

    ~PosixCrowd() override {
        for (const int fd : m_senders)
            ::close(fd);
    }

    Clock::time_point operate() override {
        const std::array<char, cFrame> frame{};
        m_arrival.expect(long{cFrame} * cManyEvents * cManySubscribers);
        for (int i = 0; i < cManyEvents; ++i) {
            for (const int fd : m_senders)
                sendAll(fd, frame.data(), frame.size());
        }
        return m_arrival.await();
    }

private:
    Arrival m_arrival;
    Crowd m_crowd;
    std::vector<int> m_senders;
};

class PublishedCrowd : public Contender {
public:
    PublishedCrowd() : m_crowd(m_arrival), m_publisher("pipe:bench-events", {"events"}, publisherOptions()) {
        for (int i = 0; i < cManySubscribers; ++i)
            m_crowd.add(subscribed());
    }

    Clock::time_point operate() override {
        m_arrival.expect(long{cFrame} * cManyEvents * cManySubscribers);
        publish(m_publisher, cManyEvents);
        return m_arrival.await();
    }

private:
    static int subscribed() {
        static const std::array<char, 40> request = {0, 0, 0, 1}; // and zeros: from the next event on
        std::array<char, 33> answer{};
        const int fd = connectTo(Address(Road::pipe, "bench-events", 0));
        sendAll(fd, "events\r\n", 8);
        sendAll(fd, request.data(), request.size());
        receiveAll(fd, answer.data(), answer.size());
        return fd;
    }

    Arrival m_arrival;
    Crowd m_crowd;
    VornNet::VornPublisher m_publisher;
};

} // namespace

void addEvents() {
    for (const Road road : {Road::pipe, Road::tcp}) {
        for (const int events : {cBurst, 1}) {
            const std::string workload = std::string(events == 1 ? "event-" : "events-") + nameOf(road);
            addContender<PosixEvents>(workload, "limit", events, road, events);
            addContender<PublishedEvents>(workload, "vornnet", events, road, events);
            addContender<ZeroMqEvents>(workload, "zeromq", events, road, events);
        }
    }
    addContender<PosixCrowd>("events-to-many", "limit", cManyEvents * cManySubscribers);
    addContender<PublishedCrowd>("events-to-many", "vornnet", cManyEvents * cManySubscribers);
}

} // namespace Bench
