// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "Sockets.h"

#include <VornDispatcher.h>
#include <VornPipeServer.h>

#include <array>
#include <atomic>
#include <semaphore>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

/**
 * One notification to each of 990 clients, from the first post until the last one is confirmed. The limit is
 * a service that has no others; the library's contender has ten more that are dead, each in its way.
 */
namespace Bench {

namespace {

constexpr int cLiving = 990; // half of them by pipe, half by TCP
constexpr int cNobodyListens = 3;
constexpr int cNobodyAccepts = 3;
constexpr int cSwallowed = 4;
constexpr int cFirstPort = 6000;

/** A server that somebody may accept from. */
class Listener {
public:
    Listener(Road road, int number, int backlog)
        : m_address(road, pipeName(number), cFirstPort + number), m_fd(listenAt(m_address, backlog)),
          m_name(road == Road::pipe ? "pipe:" + pipeName(number)
                                    : "socket:127.0.0.1:" + std::to_string(cFirstPort + number)) {}

    ~Listener() { ::close(m_fd); }

    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int descriptor() const { return m_fd; }

    const Address& address() const { return m_address; }

    const std::string& name() const { return m_name; }

private:
    static std::string pipeName(int number) { return "bench-client" + std::to_string(number); }

    const Address m_address;
    const int m_fd;
    const std::string m_name;
};

/** Reads whatever comes to the end, for all clients on one thread. */
class Readers {
public:
    Readers() : m_poll(::epoll_create1(EPOLL_CLOEXEC)), m_end(::eventfd(0, EFD_CLOEXEC)) {
        for (int i = 0; i < cLiving; ++i) {
            const Road road = i % 2 == 0 ? Road::pipe : Road::tcp;
            m_listeners.push_back(std::make_unique<Listener>(road, i, SOMAXCONN));
            watch(m_listeners.back()->descriptor(), true);
        }
        watch(m_end, true);
        m_spThread = std::make_unique<Joined>([this] { run(); });
    }

    ~Readers() {
        const std::uint64_t one = 1;
        checked(::write(m_end, &one, sizeof one), "write");
        m_spThread.reset();
        ::close(m_end);
        ::close(m_poll);
    }

    Readers(const Readers&) = delete;
    Readers& operator=(const Readers&) = delete;

    const std::vector<std::unique_ptr<Listener>>& listeners() const { return m_listeners; }

private:
    void watch(int fd, bool bIsListener) const {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = static_cast<std::uint64_t>(fd) << 1 | (bIsListener ? 1U : 0U);
        checked(::epoll_ctl(m_poll, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
    }

    void run() const {
        for (;;) {
            std::array<epoll_event, 64> events;
            const long count = checked(
                ::epoll_wait(m_poll, events.data(), static_cast<int>(events.size()), -1), "epoll_wait");
            for (long i = 0; i < count; ++i) {
                const std::uint64_t data = events[static_cast<std::size_t>(i)].data.u64;
                const int fd = static_cast<int>(data >> 1);
                std::array<char, 256> ignored;
                if (fd == m_end)
                    return;
                if ((data & 1) != 0)
                    watch(static_cast<int>(checked(::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC), "accept4")),
                          false);
                else if (::recv(fd, ignored.data(), ignored.size(), 0) <= 0)
                    ::close(fd);
            }
        }
    }

    const int m_poll;
    const int m_end;
    std::vector<std::unique_ptr<Listener>> m_listeners;
    std::unique_ptr<Joined> m_spThread;
};

/** Addresses at which no notification is ever taken. */
class DeadHosts {
public:
    DeadHosts() {
        int number = cLiving;
        for (int i = 0; i < cNobodyListens; ++i, ++number)
            m_names.push_back(Listener(i % 2 == 0 ? Road::pipe : Road::tcp, number, 1).name()); // gone by now
        for (int i = 0; i < cNobodyAccepts; ++i, ++number)
            add(std::make_unique<Listener>(i % 2 == 0 ? Road::pipe : Road::tcp, number, SOMAXCONN));
        for (int i = 0; i < cSwallowed; ++i, ++number) {
            add(std::make_unique<Listener>(Road::tcp, number, 0));
            // With its queue full, the kernel drops whatever is sent to it.
            m_inFront.push_back(connectTo(m_listeners.back()->address()));
        }
    }

    ~DeadHosts() {
        for (const int fd : m_inFront)
            ::close(fd);
    }

    DeadHosts(const DeadHosts&) = delete;
    DeadHosts& operator=(const DeadHosts&) = delete;

    const std::vector<std::string>& names() const { return m_names; }

private:
    void add(std::unique_ptr<Listener> spListener) {
        m_names.push_back(spListener->name());
        m_listeners.push_back(std::move(spListener));
    }

    std::vector<std::string> m_names;
    std::vector<std::unique_ptr<Listener>> m_listeners;
    std::vector<int> m_inFront;
};

using Proxies = std::vector<std::unique_ptr<VornNet::VornProxyDependent>>;

class ManyClients : public Contender {
public:
    explicit ManyClients(bool bWithDeadOnes) : m_notification(42) {
        raiseDescriptorLimit();
        m_spReaders = std::make_unique<Readers>();
        for (const auto& spListener : m_spReaders->listeners())
            m_living.push_back(std::make_unique<VornNet::VornProxyDependent>(spListener->name(), 0));
        if (bWithDeadOnes) {
            m_spDead = std::make_unique<DeadHosts>();
            for (const std::string& name : m_spDead->names())
                m_dead.push_back(std::make_unique<VornNet::VornProxyDependent>(name, 0));
        }
        VornNet::VornDispatcher::Options options;
        options.overflow = VornNet::VornDispatcher::Overflow::dropOldest;
        options.nQueueLimit = 10;
        options.onResult = [this](const VornNet::VornDispatcher::Result& result) {
            if (result.outcome == VornNet::VornDispatcher::Outcome::delivered && --m_left == 0)
                m_all.release();
        };
        m_spDispatcher = std::make_unique<VornNet::VornDispatcher>(options);
    }

    ~ManyClients() override { m_spDispatcher->stop(std::chrono::milliseconds(0)); }

    /** There is always something queued for the dead. */
    void prepare() override {
        for (const auto& spProxy : m_dead)
            m_spDispatcher->post(*spProxy, m_notification);
    }

    Clock::time_point operate() override {
        m_left = cLiving;
        for (const auto& spProxy : m_living)
            m_spDispatcher->post(*spProxy, m_notification);
        m_all.acquire();
        return Clock::now();
    }

private:
    static void raiseDescriptorLimit() {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }

    const VornSupport::VornNotification m_notification;
    std::unique_ptr<Readers> m_spReaders;
    std::unique_ptr<DeadHosts> m_spDead;
    Proxies m_living;
    Proxies m_dead;
    std::atomic<int> m_left = 0;
    std::binary_semaphore m_all{0};
    std::unique_ptr<VornNet::VornDispatcher> m_spDispatcher;
};

} // namespace

void addDeadClients() {
    addContender<ManyClients>("dead-clients", "limit", cLiving, false);
    addContender<ManyClients>("dead-clients", "vornnet", cLiving, true);
}

} // namespace Bench
