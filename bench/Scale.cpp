// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Blocks.h"
#include "PermanentReceiver.h"
#include "SinkDelivery.h"

#include <VornBufferConnection.h>
#include <VornProxyDependent.h>

#include <barrier>
#include <map>

/** How the cost of one unit depends on the number of threads, of callbacks and of bytes. */
namespace Bench {

namespace {

template <typename Kind, typename... Arguments>
void addAt(const std::string& workload, const std::string& contender, long units, long parameter,
           Arguments... arguments) {
    addEntry({workload, contender, units, parameter, [=] { return std::make_unique<Kind>(arguments...); }});
}

// Threads.

constexpr int cNotifications = 64;

/**
 * So many threads, each of which sends its share of the notifications to one permanent receiver.
 * @tparam Sender made from receiver and number of threads; send(thread) sends one notification
 */
template <typename Sender>
class Crowd : public Contender {
public:
    explicit Crowd(int threads)
        : m_receiver(Road::pipe, cNotifications), m_sender(m_receiver, threads), m_start(threads + 1) {
        for (int i = 0; i < threads; ++i)
            m_threads.push_back(
                std::make_unique<Joined>([this, i, share = cNotifications / threads] { run(i, share); }));
    }

    ~Crowd() override {
        m_isEnding = true;
        m_start.arrive_and_wait();
    }

    Clock::time_point operate() override {
        m_start.arrive_and_wait();
        return m_receiver.awaitBatch();
    }

private:
    void run(int thread, int share) {
        for (;;) {
            m_start.arrive_and_wait();
            if (m_isEnding)
                return;
            for (int i = 0; i < share; ++i)
                m_sender.send(thread);
        }
    }

    PermanentReceiver m_receiver;
    Sender m_sender;
    std::barrier<> m_start;
    std::atomic<bool> m_isEnding{false};
    std::vector<std::unique_ptr<Joined>> m_threads;
};

class PosixCrowd {
public:
    PosixCrowd(const PermanentReceiver& receiver, int /*threads*/) : m_address(receiver.address()) {}

    void send(int /*thread*/) const { sendNotification(Road::pipe, m_address); }

private:
    const Address m_address;
};

template <bool IsShared>
class VornnetCrowd {
public:
    VornnetCrowd(const PermanentReceiver& receiver, int threads) : m_notification(42) {
        for (int i = 0; i < (IsShared ? 1 : threads); ++i)
            m_proxies.push_back(std::make_unique<VornNet::VornProxyDependent>(receiver.callbackAddress(), 0));
    }

    void send(int thread) const {
        m_proxies[IsShared ? 0 : static_cast<std::size_t>(thread)]->remoteNotify(m_notification);
    }

private:
    std::vector<std::unique_ptr<VornNet::VornProxyDependent>> m_proxies;
    const VornSupport::VornNotification m_notification;
};

void addThreads() {
    for (int threads = 1; threads <= cNotifications; threads *= 2) {
        addAt<Crowd<PosixCrowd>>("scale-threads", "limit", cNotifications, threads, threads);
        addAt<Crowd<VornnetCrowd<true>>>("scale-threads", "vornnet-one-proxy", cNotifications, threads,
                                         threads);
        addAt<Crowd<VornnetCrowd<false>>>("scale-threads", "vornnet-proxy-each", cNotifications, threads,
                                          threads);
    }
}

// Callbacks.

constexpr int cLookUps = 1000;

class MapLookUp : public Contender {
public:
    explicit MapLookUp(int entries) {
        for (int i = 0; i < entries; ++i)
            m_map.emplace(i, i);
    }

    Clock::time_point operate() override {
        for (int i = 0; i < cLookUps; ++i)
            benchmark::DoNotOptimize(m_map.find(placeOf(i, static_cast<int>(m_map.size())))->second);
        return Clock::now();
    }

private:
    std::map<int, int> m_map;
};

class CallbackLookUp : public Contender {
public:
    explicit CallbackLookUp(int entries) : m_entries(entries) {
        for (int i = 0; i < entries; ++i)
            m_container.add(new Callback(m_container.getNewId()));
    }

    Clock::time_point operate() override {
        for (int i = 0; i < cLookUps; ++i)
            benchmark::DoNotOptimize(m_container.lookup(placeOf(i, m_entries)));
        return Clock::now();
    }

private:
    class Callback : public VornNet::VornNotificationCallback {
    public:
        using VornNotificationCallback::VornNotificationCallback;

    protected:
        void doCallback(VornNet::VornSmartPointer<VornNet::VornConnection>& /*spConnection*/) override {}
    };

    const int m_entries;
    VornNet::VornCallbackContainer m_container;
};

void addCallbacks() {
    for (const int callbacks : {1, 10, 100, 1'000, 10'000}) {
        addAt<MapLookUp>("scale-callback-lookup", "limit", cLookUps, callbacks, callbacks);
        addAt<CallbackLookUp>("scale-callback-lookup", "vornnet", cLookUps, callbacks, callbacks);
        addAt<PosixSink>("scale-callback-delivery", "limit", 1, callbacks, Road::pipe);
        addAt<VornnetSink>("scale-callback-delivery", "vornnet", 1, callbacks, Road::pipe, callbacks);
    }
}

// Bytes.

/** A text composed in memory and read again. */
class InMemory : public Contender {
public:
    explicit InMemory(std::size_t size) : m_text(size, 'x') {}

    Clock::time_point operate() override {
        VornNet::VornBufferConnection message;
        message.transfer(m_text);
        benchmark::DoNotOptimize(message.receiveString());
        return Clock::now();
    }

private:
    const VornNet::VornString m_text;
};

void addBytes() {
    for (long bytes = 1; bytes <= 64 * 1024 * 1024; bytes *= 4) {
        const auto size = static_cast<std::size_t>(bytes);
        for (const Road road : {Road::pipe, Road::tcp}) {
            const std::string workload = std::string("scale-bytes-") + nameOf(road);
            addAt<Dialogue<PosixBlock>>(workload, "limit", bytes, bytes, road, size);
            addAt<Dialogue<VornnetBlock>>(workload, "vornnet-block", bytes, bytes, road, size);
            addAt<Dialogue<VornnetString>>(workload, "vornnet-string", bytes, bytes, road, size);
        }
        addAt<InMemory>("scale-bytes-pipe", "vornnet-in-memory", bytes, bytes, size);
    }
}

} // namespace

void addScale() {
    addThreads();
    addCallbacks();
    addBytes();
}

} // namespace Bench
