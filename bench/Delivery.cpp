// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"
#include "PosixServer.h"

#include <VornDispatcher.h>
#include <VornLibraryCallbackSink.h>
#include <VornSteadySink.h>

#include <atomic>
#include <cstdlib>

#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>

/**
 * A burst of notifications that are confirmed: from the sender's first call until the last one's callback has
 * returned. The limit does by hand what confirms one: connect, send, end the sending side, wait for the end.
 */
namespace Bench {

namespace {

constexpr int cBurst = 100;
constexpr useconds_t cPause = 20; // the dispatcher's own
constexpr int cSteadyPort = 5950;

class Callback : public VornNet::VornNotificationCallback {
public:
    explicit Callback(std::atomic<long>& calls) : VornNotificationCallback(0), m_calls(calls) {}

protected:
    void doCallback(VornNet::VornSmartPointer<VornNet::VornConnection>& spConnection) override {
        benchmark::DoNotOptimize(spConnection->receiveLong());
        m_calls.fetch_add(1, std::memory_order_relaxed);
    }

private:
    std::atomic<long>& m_calls;
};

/** One of the library's sinks, in this process. */
class Receiver {
public:
    Receiver(Road road, bool bIsSteady) {
        if (bIsSteady) {
            VornNet::VornSteadySink::Options options;
            options.kind =
                road == Road::pipe ? VornNet::VornSteadySink::Kind::pipe : VornNet::VornSteadySink::Kind::tcp;
            options.sPipeName = road == Road::pipe ? "bench-steady" : "";
            options.nPort = road == Road::pipe ? 0 : cSteadyPort;
            options.sBindAddress = road == Road::pipe ? "" : "127.0.0.1";
            m_spSteady = std::make_unique<VornNet::VornSteadySink>("bench", options);
            m_spSteady->getCallbackContainer().add(new Callback(m_calls));
            m_callbackAddress = m_spSteady->getCallbackAddress();
        } else {
            ::setenv("QUORAX_CALLB_CONN_TYPE", road == Road::pipe ? "pipe" : "socket", 1);
            m_spPlain = std::make_unique<VornNet::VornLibraryCallbackSink>("bench");
            m_spPlain->getCallbackContainer().add(new Callback(m_calls));
            m_callbackAddress = m_spPlain->getCallbackAddress();
        }
        const std::string name = m_callbackAddress.substr(m_callbackAddress.find(':') + 1);
        const int port = road == Road::pipe
                             ? 0
                             : std::atoi(m_callbackAddress.substr(m_callbackAddress.rfind(':') + 1).c_str());
        m_spAddress = std::make_unique<Address>(road, name, port);
    }

    const std::string& callbackAddress() const { return m_callbackAddress; }

    const Address& address() const { return *m_spAddress; }

private:
    std::atomic<long> m_calls = 0;
    std::unique_ptr<VornNet::VornSteadySink> m_spSteady;
    std::unique_ptr<VornNet::VornLibraryCallbackSink> m_spPlain;
    std::string m_callbackAddress;
    std::unique_ptr<Address> m_spAddress;
};

/** Tries until it has delivered: an unmodified sink opens again after each notification. */
class DeliveryByHand : public Contender {
public:
    DeliveryByHand(Road road, bool bIsSteady) : m_road(road), m_receiver(road, bIsSteady) {
        ::prctl(PR_SET_TIMERSLACK, 1);
    }

    Clock::time_point operate() override {
        for (int i = 0; i < cBurst; ++i) {
            while (!deliver())
                ::usleep(cPause);
        }
        return Clock::now();
    }

protected:
    virtual bool deliver() const = 0;

    const Road m_road;
    const Receiver m_receiver;
};

class PosixDelivery : public DeliveryByHand {
public:
    using DeliveryByHand::DeliveryByHand;

protected:
    bool deliver() const override {
        const NotificationBytes bytes;
        char end = 0;
        const int fd =
            static_cast<int>(checked(::socket(familyOf(m_road), SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
        const bool bIsDelivered =
            ::connect(fd, m_receiver.address().get(), m_receiver.address().length()) == 0 &&
            ::send(fd, &bytes, sizeof bytes, MSG_NOSIGNAL | MSG_MORE) == static_cast<ssize_t>(sizeof bytes) &&
            ::shutdown(fd, SHUT_WR) == 0 && ::recv(fd, &end, 1, 0) == 0;
        ::close(fd);
        return bIsDelivered;
    }
};

/**
 * The same with what the dispatcher does over a pipe besides, so that nothing is sent to a sink that is about
 * to go: seven bytes first, and the rest when they have been taken. Whoever wants to know that has to run
 * twice more, and so has the sink.
 */
class ProbingDelivery : public DeliveryByHand {
public:
    explicit ProbingDelivery(bool bIsSteady)
        : DeliveryByHand(Road::pipe, bIsSteady),
          m_poll(static_cast<int>(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1"))) {}

    ~ProbingDelivery() override { ::close(m_poll); }

protected:
    bool deliver() const override {
        const int fd = static_cast<int>(
            checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket"));
        const bool bIsDelivered =
            ::connect(fd, m_receiver.address().get(), m_receiver.address().length()) == 0 && converse(fd);
        ::close(fd);
        return bIsDelivered;
    }

private:
    static constexpr std::size_t cProbe = 7;

    bool converse(int fd) const {
        const NotificationBytes bytes;
        const auto* begin = reinterpret_cast<const char*>(&bytes);
        constexpr std::size_t cRest = sizeof bytes - cProbe;
        char end = 0;
        if (::send(fd, begin, cProbe, MSG_NOSIGNAL) != static_cast<ssize_t>(cProbe))
            return false;
        watch(EPOLL_CTL_ADD, fd, EPOLLIN | EPOLLRDHUP | EPOLLET | EPOLLOUT);
        for (int untaken = 2; untaken > 1;) {
            if ((wait() & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0)
                return false;
            checked(::ioctl(fd, SIOCOUTQ, &untaken), "ioctl");
        }
        watch(EPOLL_CTL_MOD, fd, EPOLLIN | EPOLLRDHUP | EPOLLET);
        if (::send(fd, begin + cProbe, cRest, MSG_NOSIGNAL) != static_cast<ssize_t>(cRest) ||
            ::shutdown(fd, SHUT_WR) != 0)
            return false;
        wait();
        return ::recv(fd, &end, 1, 0) == 0;
    }

    void watch(int operation, int fd, std::uint32_t events) const {
        epoll_event event{};
        event.events = events;
        checked(::epoll_ctl(m_poll, operation, fd, &event), "epoll_ctl");
    }

    std::uint32_t wait() const {
        epoll_event event{};
        checked(::epoll_wait(m_poll, &event, 1, -1), "epoll_wait");
        return event.events;
    }

    const int m_poll;
};

class DispatcherDelivery : public Contender {
public:
    DispatcherDelivery(Road road, bool bIsSteady)
        : m_receiver(road, bIsSteady), m_proxy(m_receiver.callbackAddress(), 0), m_notification(42) {}

    Clock::time_point operate() override {
        for (int i = 0; i < cBurst; ++i)
            m_dispatcher.post(m_proxy, m_notification);
        m_dispatcher.flush(std::chrono::milliseconds(-1));
        return Clock::now();
    }

private:
    const Receiver m_receiver;
    VornNet::VornProxyDependent m_proxy;
    const VornSupport::VornNotification m_notification;
    VornNet::VornDispatcher m_dispatcher;
};

} // namespace

void addDelivery() {
    for (const Road road : {Road::pipe, Road::tcp}) {
        for (const bool bIsSteady : {true, false}) {
            const std::string workload =
                std::string("delivery-") + nameOf(road) + (bIsSteady ? "-steady" : "-plain");
            addContender<PosixDelivery>(workload, "limit", cBurst, road, bIsSteady);
            addContender<DispatcherDelivery>(workload, "vornnet", cBurst, road, bIsSteady);
            if (road == Road::pipe)
                addContender<ProbingDelivery>(workload, "probe-by-hand", cBurst, bIsSteady);
        }
    }
}

} // namespace Bench
