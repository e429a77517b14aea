// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * delivery_history [ROUNDS [SEED]]
 *
 * A service posts notifications to a client, each in a process of its own, without pause; clients and
 * services are killed at random moments, ROUNDS times each. Every process writes down what it saw as it
 * happens, into a file that a kill leaves as it is, and the histories are compared.
 */

#include "Await.h"
#include "Process.h"
#include "Sandbox.h"

#include <VornDispatcher.h>
#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>
#include <VornSteadySink.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace std::chrono_literals;
using namespace VornNet;
using namespace VornTest;
using Outcome = VornDispatcher::Outcome;

namespace {

/** What happened to one notification. */
struct Event {
    enum Kind : std::int32_t { begun, finished, told };

    std::int32_t kind;
    std::int32_t service;
    std::int32_t number;
    std::int32_t outcome;
};

/** A file of events; each is there once write() has returned, whatever becomes of the process. */
class History {
public:
    explicit History(const std::string& path)
        : m_fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}

    ~History() { ::close(m_fd); }

    History(const History&) = delete;
    History& operator=(const History&) = delete;

    void add(const Event& event) const {
        if (::write(m_fd, &event, sizeof event) != sizeof event)
            std::abort();
    }

    static std::vector<Event> read(const std::string& path) {
        if (count(path) == 0) // of one that was killed before it could begin
            return {};
        const std::string bytes = readTextFile(path);
        std::vector<Event> events(bytes.size() / sizeof(Event));
        std::copy_n(bytes.data(), events.size() * sizeof(Event), reinterpret_cast<char*>(events.data()));
        return events;
    }

    static std::size_t count(const std::string& path) {
        std::error_code none;
        const auto size = std::filesystem::file_size(path, none);
        return none ? 0 : static_cast<std::size_t>(size) / sizeof(Event);
    }

private:
    int m_fd;
};

class RecordingCallback : public VornNotificationCallback {
public:
    RecordingCallback(const std::string& path, std::chrono::microseconds length)
        : VornNotificationCallback(0), m_history(path), m_length(length) {}

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        const int nService = spConnection->receiveInt();
        const int nNumber = spConnection->receiveInt();
        m_history.add({Event::begun, nService, nNumber, 0});
        const auto end = std::chrono::steady_clock::now() + m_length;
        while (std::chrono::steady_clock::now() < end) {
        }
        m_history.add({Event::finished, nService, nNumber, 0});
    }

private:
    const History m_history;
    const std::chrono::microseconds m_length;
};

class NumberProxy : public VornProxyDependent {
public:
    NumberProxy(const std::string& sAddress, int nService)
        : VornProxyDependent(sAddress, 0), m_nService(nService) {}

    void addContent(VornConnection& connection, const VornNotification& notification) override {
        connection.transfer(m_nService);
        connection.transfer(notification.getId());
    }

private:
    const int m_nService;
};

} // namespace

/** KIND SINK HISTORY MICROSECONDS: a client; it prints its address and lives until its input ends. */
KIT_ROLE(client) {
    VornNotificationCallback* callback =
        new RecordingCallback(args.at(2), std::chrono::microseconds(std::stoi(args.at(3))));
    const VornSmartPointer<VornNotificationCallback> spCallback(callback);
    std::unique_ptr<VornSteadySink> spSteady;
    std::unique_ptr<VornLibraryCallbackSink> spPlain;
    if (args.at(1) == "steady") {
        VornSteadySink::Options options;
        options.kind = args.at(0) == "pipe" ? VornSteadySink::Kind::pipe : VornSteadySink::Kind::tcp;
        if (args.at(0) == "pipe")
            options.sPipeName = "client";
        spSteady = std::make_unique<VornSteadySink>("client", options);
        spSteady->getCallbackContainer().add(spCallback);
        std::puts(spSteady->getCallbackAddress().c_str());
    } else {
        ::setenv("QUORAX_CALLB_CONN_TYPE", args.at(0) == "pipe" ? "pipe" : "socket", 1);
        spPlain = std::make_unique<VornLibraryCallbackSink>("client");
        spPlain->getCallbackContainer().add(spCallback);
        std::puts(spPlain->getCallbackAddress().c_str());
    }
    std::fflush(stdout);
    std::getchar();
    return 0;
}

/** ADDRESS INDEX COUNT HISTORY MILLISECONDS: a service; it posts, and ends when it knows what became of all.
 */
KIT_ROLE(service) {
    const int nService = std::stoi(args.at(1));
    const int nCount = std::stoi(args.at(2));
    const History history(args.at(3));
    VornDispatcher::Options options;
    options.overflow = VornDispatcher::Overflow::wait;
    options.terms.timeLimit = std::chrono::milliseconds(std::stoi(args.at(4)));
    options.onResult = [&](const VornDispatcher::Result& result) {
        history.add(
            {Event::told, nService, static_cast<int>(result.nTicket) - 1, static_cast<int>(result.outcome)});
    };
    VornDispatcher dispatcher(options);
    NumberProxy proxy(args.at(0), nService);
    for (int i = 0; i < nCount; ++i)
        dispatcher.post(proxy, VornNotification(i));
    dispatcher.stop(-1ms);
    return 0;
}

namespace {

/** Over which transport to which sink. */
struct Pairing {
    std::string kind; ///< "pipe" or "tcp"
    std::string sink; ///< "plain" or "steady"

    bool isSteady() const { return sink == "steady"; }

    /** @return whether the sink may move to another port; what was queued then expires, and is told of. */
    bool mayMove() const { return kind == "tcp" && !isSteady(); }

    std::string name() const { return kind + ", dispatcher to " + sink; }
};

const Pairing cPairings[] = {{"pipe", "plain"}, {"pipe", "steady"}, {"tcp", "plain"}, {"tcp", "steady"}};

/** The numbers of one service's events of a kind, in their order. */
std::vector<int> numbersOf(const std::vector<Event>& events, Event::Kind kind, int nService) {
    std::vector<int> numbers;
    for (const Event& event : events) {
        if (event.kind == kind && event.service == nService)
            numbers.push_back(event.number);
    }
    return numbers;
}

std::set<int> toldAs(const std::vector<Event>& events, Outcome outcome) {
    std::set<int> numbers;
    for (const Event& event : events) {
        if (event.kind == Event::told && event.outcome == static_cast<int>(outcome))
            numbers.insert(event.number);
    }
    return numbers;
}

struct Sums {
    int delivered = 0;
    int told = 0;
    int lost = 0;
    int twice = 0;
    int disordered = 0;
    int overstated = 0;  // delivered, and no callback had finished
    int inTheMiddle = 0; // the same, but an unmodified sink was killed after it had read everything

    bool isClean() const { return lost + twice + disordered + overstated == 0; }

    void print(const std::string& what) const {
        std::printf(
            "%-44s %6d delivered, %5d told otherwise; lost %d, twice %d, out of order %d, overstated %d, "
            "in the middle %d\n",
            what.c_str(), delivered, told, lost, twice, disordered, overstated, inTheMiddle);
        std::fflush(stdout);
    }
};

/** Compares what one service was told with what the client saw of it. @param bIsKilled whether the client was
 *  killed */
void compare(const Pairing& pairing, const std::vector<Event>& client, const std::vector<Event>& service,
             int nService, int nCount, bool bIsKilled, Sums& sums) {
    const std::vector<int> begun = numbersOf(client, Event::begun, nService);
    const std::vector<int> finished = numbersOf(client, Event::finished, nService);
    const std::set<int> called(begun.begin(), begun.end());
    const std::set<int> done(finished.begin(), finished.end());
    const std::set<int> delivered = toldAs(service, Outcome::delivered);
    sums.delivered += static_cast<int>(delivered.size());
    sums.told += static_cast<int>(service.size() - delivered.size());
    sums.twice += static_cast<int>(begun.size() - called.size());
    sums.disordered += !std::is_sorted(begun.begin(), begun.end());
    sums.lost += nCount - static_cast<int>(service.size()); // without a result
    // An unmodified sink also seems to have called its callback when it is killed once everything was read.
    for (const int number : delivered)
        sums.overstated += (pairing.isSteady() ? done : called).count(number) == 0;
    if (!pairing.isSteady() && bIsKilled && delivered.count(static_cast<int>(called.size())) != 0) {
        --sums.overstated;
        ++sums.inTheMiddle;
    }
}

/** A folder of histories, gone at the end. */
class Folder {
public:
    Folder() {
        char name[] = "/tmp/delivery_history.XXXXXX";
        m_path = ::mkdtemp(name);
    }

    ~Folder() { std::filesystem::remove_all(m_path); }

    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

ChildProcess startClient(const Pairing& pairing, const std::string& file, int nLength) {
    return ChildProcess::spawnRole("client", pairing.kind, pairing.sink, file, std::to_string(nLength));
}

ChildProcess startService(const std::string& address, int nService, int nCount, const std::string& file,
                          int nTimeLimit) {
    return ChildProcess::spawnRole("service", address, std::to_string(nService), std::to_string(nCount), file,
                                   std::to_string(nTimeLimit));
}

/** Waits for so many events of the client, which is some moment in the middle, or for the service's last one.
 */
void awaitEvents(const std::string& client, std::size_t nEvents, const std::string& service,
                 std::size_t nTold) {
    awaitCondition([&] { return History::count(client) >= nEvents || History::count(service) >= nTold; },
                   60s);
}

bool killClients(const Pairing& pairing, int nRounds, std::mt19937& random) {
    constexpr int cCount = 200;
    Sums sums;
    int nUnread = 0;
    for (int round = 0; round < nRounds; ++round) {
        const Folder folder;
        const bool bComesBack = pairing.isSteady() && pairing.kind == "pipe" && round % 2 == 0;
        ChildProcess client = startClient(pairing, folder.file("client"), 300);
        const std::string address = client.readLine();
        ChildProcess service =
            startService(address, 0, cCount, folder.file("service"), bComesBack ? 20'000 : 700);
        awaitEvents(folder.file("client"), 1 + random() % 300, folder.file("service"), cCount);
        client.kill(SIGKILL);
        client.wait();
        std::optional<ChildProcess> next;
        if (bComesBack) { // under the same name
            next.emplace(startClient(pairing, folder.file("client"), 300));
            next->readLine();
        }
        service.wait(60s);
        const std::vector<Event> told = History::read(folder.file("service"));
        compare(pairing, History::read(folder.file("client")), told, 0, cCount, true, sums);
        // One was in its callback. One that comes back is reached before it has registered its callback.
        if (!bComesBack)
            nUnread = std::max(nUnread, static_cast<int>(toldAs(told, Outcome::unread).size()));
        if (bComesBack)
            sums.lost += static_cast<int>(toldAs(told, Outcome::expired).size());
    }
    sums.print(pairing.name() + ", client killed " + std::to_string(nRounds) + " times");
    return sums.isClean() && nUnread <= 1;
}

bool killServices(const Pairing& pairing, int nRounds, std::mt19937& random) {
    constexpr int cCount = 300;
    Sums sums;
    const Folder folder;
    std::optional<ChildProcess> client;
    std::string address;
    for (int round = 0; round < nRounds; ++round) {
        if (!client || pairing.mayMove()) {
            client.reset();
            client.emplace(startClient(pairing, folder.file("client"), 100));
            address = client->readLine();
        }
        const std::size_t nBefore = History::count(folder.file("client"));
        const std::string file = folder.file("service" + std::to_string(round));
        ChildProcess service = startService(address, round, cCount, file, 10'000);
        awaitEvents(folder.file("client"), nBefore + 1 + random() % 400, file, cCount);
        service.kill(SIGKILL);
        service.wait();
    }
    client->closeInput();
    client->wait();
    const std::vector<Event> seen = History::read(folder.file("client"));
    for (int round = 0; round < nRounds; ++round) {
        const std::vector<int> begun = numbersOf(seen, Event::begun, round);
        const std::vector<Event> told = History::read(folder.file("service" + std::to_string(round)));
        compare(pairing, seen, told, round, static_cast<int>(told.size()), false, sums);
        // A beginning without a gap.
        for (std::size_t i = 0; i < begun.size(); ++i)
            sums.disordered += begun[i] != static_cast<int>(i);
    }
    sums.print(pairing.name() + ", service killed " + std::to_string(nRounds) + " times");
    return sums.isClean();
}

} // namespace

int main(int argc, char** argv) {
    enterSandbox();
    std::signal(SIGPIPE, SIG_IGN);
    if (argc > 2 && std::string(argv[1]) == "--kit-role")
        return runRole(argv[2], {argv + 3, argv + argc});
    const int nRounds = argc > 1 ? std::atoi(argv[1]) : 200;
    std::mt19937 random(static_cast<unsigned int>(argc > 2 ? std::atoi(argv[2]) : 1));
    bool bIsClean = true;
    for (const Pairing& pairing : cPairings) {
        bIsClean = killClients(pairing, nRounds, random) && bIsClean;
        bIsClean = killServices(pairing, nRounds, random) && bIsClean;
    }
    return bIsClean ? EXIT_SUCCESS : EXIT_FAILURE;
}
