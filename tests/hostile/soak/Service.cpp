// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// A service: two desks at which clients subscribe, over a pipe and over TCP, and one sender for each client,
// so that a client that hangs holds up nobody else.

#include "History.h"
#include "Roles.h"

#include <TimeLimit.h>
#include <VornCriticalSection.h>
#include <VornException.h>
#include <VornPipeServer.h>
#include <VornProxyDependentContainer.h>
#include <VornServerSocket.h>
#include <VornSleep.h>
#include <VornThread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <random>
#include <thread>

namespace Soak {

using namespace VornNet;

namespace {

using namespace std::chrono;

struct Settings {
    int number;
    std::string host;
    int port;
    int slots;
    unsigned int seed;
};

std::atomic<bool> ending = false;
std::atomic<long> lastEvent = 0;
std::atomic<int> oversizedLeft = 10; // each leaves a descriptor open, which the library documents

class Message : public VornNotification {
public:
    /** @param token names one attempt to deliver one event: "SERVICE:EVENT:ATTEMPT" */
    Message(std::string token, const std::string& body)
        : VornNotification(0), m_token(std::move(token)), m_body(body) {}

    const std::string m_token;
    const std::string& m_body;
};

class Subscription : public VornProxyDependent {
public:
    Subscription(const VornString& address, long callback, int slot, int generation)
        : VornProxyDependent(address, callback), m_slot(slot), m_generation(generation) {}

    void addContent(VornConnection& connection, const VornNotification& notification) override {
        const auto& message = dynamic_cast<const Message&>(notification);
        connection.transfer(message.m_token);
        connection.transfer(message.m_body); // never empty: whoever has written the last byte has written all
    }

    const int m_slot;
    const int m_generation;
    int m_refusals = 0; // in a row; the sender's own
};

using SubscriptionPointer = VornSmartPointer<Subscription>;

/** What clients have subscribed: the library's registry, seen by slots. */
class Subscriptions {
public:
    void renew(int slot, int generation, const VornString& address) {
        const VornCriticalSection lock(m_registry.getlock(), true);
        const SubscriptionPointer known = at(slot, 0);
        if (known != nullptr && known->m_generation == generation && known->getRemoteName() == address &&
            at(slot, callbacksPerClient - 1) != nullptr)
            return;
        drop(slot);
        for (long callback = 0; callback < callbacksPerClient; ++callback)
            m_registry.add(new Subscription(address, callback, slot, generation));
    }

    void giveUp(const Subscription& subscription) {
        const VornCriticalSection lock(m_registry.getlock(), true);
        const SubscriptionPointer known = at(subscription.m_slot, 0);
        if (known == nullptr || known->m_generation != subscription.m_generation ||
            known->getRemoteName() != subscription.getRemoteName())
            return;
        drop(subscription.m_slot);
    }

    /** The slot's n-th callback in turn, null when it has none. */
    SubscriptionPointer inTurn(int slot, long n) {
        const VornCriticalSection lock(m_registry.getlock(), true);
        return at(slot, static_cast<int>(n % callbacksPerClient));
    }

private:
    SubscriptionPointer at(int slot, int callback) {
        for (int i = 0; i < m_registry.size(); ++i) {
            const VornSmartPointer<VornProxyDependent> entry = m_registry[i];
            auto& subscription = static_cast<Subscription&>(*entry);
            if (subscription.m_slot == slot && subscription.getDependentHandle() == callback)
                return &subscription;
        }
        return nullptr;
    }

    void drop(int slot) {
        for (int i = m_registry.size() - 1; i >= 0; --i) {
            if (static_cast<Subscription&>(*m_registry[i]).m_slot == slot)
                m_registry.remove(i);
        }
    }

    VornProxyDependentContainer& m_registry = VornProxyDependentContainer::getInstance();
};

/** The thread that clients of one transport subscribe at. */
class Desk final : public VornThread {
public:
    Desk(VornIPCServer* server, Subscriptions& subscriptions)
        : VornThread("desk"), m_subscriptions(subscriptions), m_server(server) {
        start();
        m_server->waitForInit();
    }

    ~Desk() override {
        stop();
        do // more than once: closed between two waits, the server opens again with the next
            m_server->close();
        while (!wait(20));
    }

    using VornThread::run;

    int run() override {
        while (!isStopRequested()) {
            try {
                const VornSmartPointer<VornConnection> client = m_server->waitForClient(false);
                if (client != nullptr)
                    serve(*client);
            } catch (const VornException&) {
                VornSleep(20); // a client that broke off, or no descriptor for it
            }
        }
        return 0;
    }

private:
    void serve(VornConnection& client) {
        const Example::TimeLimit limit{seconds(patienceInSeconds)};
        const int slot = client.receiveInt();
        const int generation = client.receiveInt();
        m_subscriptions.renew(slot, generation, client.receiveString());
        client.transferACK();
    }

    Subscriptions& m_subscriptions;
    const VornSmartPointer<VornIPCServer> m_server;
};

/** Notifies one client, now with pauses, now in bursts. */
class Sender {
public:
    Sender(const Settings& settings, int slot, Subscriptions& subscriptions)
        : m_settings(settings), m_slot(slot), m_subscriptions(subscriptions),
          m_random(settings.seed + static_cast<unsigned int>(1000 * settings.number + slot)),
          m_thread([this] { run(); }) {}

    ~Sender() { m_thread.join(); }

    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

private:
    void run() {
        while (!ending) {
            const auto pacedUntil = steady_clock::now() + milliseconds(between(1000, 3000));
            while (!ending && steady_clock::now() < pacedUntil) {
                notifyNext("paced", 4);
                VornSleep(between(30, 60));
            }
            for (int bursts = between(1, 3); !ending && bursts > 0; --bursts) {
                for (int i = between(5, 30); !ending && i > 0; --i)
                    notifyNext("burst", 1);
                VornSleep(between(200, 500));
            }
        }
    }

    /** Sends one event, again where it was refused, and drops a client that refuses too much. */
    void notifyNext(const char* load, int mostAttempts) {
        constexpr int mostRefusals = 8;
        constexpr int pause = 20;
        const SubscriptionPointer subscription = m_subscriptions.inTurn(m_slot, m_turn++);
        if (subscription == nullptr) {
            VornSleep(pause);
            return;
        }
        const long event = ++lastEvent;
        const std::string body = makeBody(sizeFor(subscription->getRemoteName()));
        for (int attempt = 1; attempt <= mostAttempts; ++attempt) {
            const int code = tryOnce(*subscription, load, event, attempt, body);
            if (code == 0) {
                subscription->m_refusals = 0;
                return;
            }
            if (code != ENOENT && code != ECONNREFUSED && code != EPIPE && code != ECONNRESET)
                break;
            if (attempt < mostAttempts)
                VornSleep(pause);
        }
        if (++subscription->m_refusals == mostRefusals)
            m_subscriptions.giveUp(*subscription);
    }

    int tryOnce(Subscription& subscription, const char* load, long event, int attempt,
                const std::string& body) {
        const std::string token =
            std::to_string(m_settings.number) + ":" + std::to_string(event) + ":" + std::to_string(attempt);
        const Message message(token, body);
        History::write("begin token=%s slot=%d generation=%d to=%s callback=%d load=%s size=%zu sum=%zx",
                       token.c_str(), m_slot, subscription.m_generation, subscription.getRemoteName().c_str(),
                       subscription.getDependentHandle(), load, body.size(), sumOf(token, body));
        int code = 0;
        try {
            const Example::TimeLimit limit{seconds(patienceInSeconds)};
            subscription.remoteNotify(message);
        } catch (const VornException& e) {
            code = e.getCode() != 0 ? e.getCode() : -1;
        }
        History::write("end token=%s code=%d", token.c_str(), code);
        return code;
    }

    std::size_t sizeFor(const VornString& address) {
        const bool isUdp = address.starts_with("udp:");
        if (isUdp && between(1, 400) == 1 && --oversizedLeft >= 0)
            return 70'000; // more than a datagram holds
        const int choice = between(1, 100);
        if (choice <= 75)
            return static_cast<std::size_t>(between(1, 1300));
        if (choice < 100)
            return static_cast<std::size_t>(between(1300, 20'000));
        // The larger of them fills a socket whose reader is stopped, and blocks its writer.
        return isUdp ? 60'000 : 400'000;
    }

    std::string makeBody(std::size_t size) {
        std::string body(size, '\0');
        for (char& byte : body)
            byte = static_cast<char>(1 + m_random() % 255);
        return body;
    }

    int between(int least, int most) { return std::uniform_int_distribution<>(least, most)(m_random); }

    const Settings& m_settings;
    const int m_slot;
    Subscriptions& m_subscriptions;
    std::mt19937 m_random;
    long m_turn = 0;
    std::thread m_thread;
};

} // namespace

int runService(const Arguments& arguments) {
    const Settings settings{std::stoi(arguments.at(0)), arguments.at(1), std::stoi(arguments.at(2)),
                            std::stoi(arguments.at(3)),
                            static_cast<unsigned int>(std::stoul(arguments.at(4)))};
    const sigset_t signals = blockEndSignals();
    Subscriptions subscriptions;
    const std::string name = "soak" + std::to_string(settings.number);
    const Desk pipeDesk(new VornPipeServer(name), subscriptions);
    const Desk tcpDesk(new VornServerSocket(settings.port, 16, settings.host), subscriptions);
    const Belongings idle = Belongings::count();
    idle.recordIdle();
    std::vector<std::unique_ptr<Sender>> senders;
    for (int slot = 0; slot < settings.slots; ++slot)
        senders.push_back(std::make_unique<Sender>(settings, slot, subscriptions));
    int signal = 0;
    sigwait(&signals, &signal);
    ending = true;
    senders.clear();
    idle.recordIdle();
    return 0;
}

} // namespace Soak
