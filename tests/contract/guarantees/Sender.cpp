// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Sender.h"

#include "Process.h"
#include "TimeLimit.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <sstream>

#include <VornConnection.h>
#include <VornDispatcher.h>
#include <VornException.h>
#include <VornNotification.h>
#include <VornProxyDependent.h>
#include <VornSleep.h>
#include <unistd.h>

using namespace VornNet;

namespace Guarantees {

namespace {

constexpr int cRetryPause = 20;

class Proxy : public VornProxyDependent {
public:
    explicit Proxy(const Order& order) : VornProxyDependent(order.address, 0), m_order(order) {}

    void addContent(VornConnection& connection, const VornNotification& notification) override {
        connection.transfer(notification.getId());
        connection.transfer(VornString(static_cast<std::size_t>(m_order.payload), 'x'));
        char none = 0;
        long nError = 0;
        while (m_order.holdsForPeer && connection.receive(&none, 1, &nError, true) > 0) {
        }
    }

private:
    const Order& m_order;
};

/** @return 0, or the code of the exception */
int notifyOnce(Proxy& proxy, int id, int patience) {
    try {
        std::unique_ptr<Example::TimeLimit> limit;
        if (patience > 0)
            limit = std::make_unique<Example::TimeLimit>(std::chrono::seconds(patience));
        proxy.remoteNotify(VornNotification(id));
        return 0;
    } catch (const VornException& e) {
        return e.getCode();
    }
}

void carryOut(const Order& order) {
    const VornSmartPointer<Proxy> spProxy = new Proxy(order);
    for (int id = 0; id < order.count; ++id) {
        int nCode = notifyOnce(*spProxy, id, order.patience);
        for (int tries = 1; nCode != 0 && tries < order.mostTries; ++tries) {
            std::printf("retry\n");
            VornSleep(cRetryPause);
            nCode = notifyOnce(*spProxy, id, order.patience);
        }
        if (nCode == 0)
            std::printf("sent %d\n", id);
        else
            std::printf("refused %d\n", nCode);
        if (order.pauseMicros > 0)
            usleep(static_cast<useconds_t>(order.pauseMicros));
    }
}

void carryOutByDispatcher(const Order& order) {
    VornDispatcher::Options options;
    options.onResult = [](const VornDispatcher::Result& result) {
        const bool bArrived = result.outcome == VornDispatcher::Outcome::delivered ||
                              result.outcome == VornDispatcher::Outcome::sent;
        if (bArrived)
            std::printf("sent %d\n", static_cast<int>(result.nTicket) - 1);
        else
            std::printf("refused %d\n", result.nCode);
    };
    VornDispatcher dispatcher(options);
    const VornSmartPointer<Proxy> spProxy = new Proxy(order);
    for (int id = 0; id < order.count; ++id)
        dispatcher.post(*spProxy, VornNotification(id));
    dispatcher.stop(std::chrono::milliseconds(-1));
}

std::vector<std::string> argumentsOf(const Order& order) {
    return {order.address,
            std::to_string(order.count),
            std::to_string(order.pauseMicros),
            std::to_string(order.holdsForPeer),
            std::to_string(order.ignoresSigpipe),
            std::to_string(order.mostTries),
            std::to_string(order.payload),
            std::to_string(order.patience),
            std::to_string(order.byDispatcher)};
}

Order orderOf(const std::vector<std::string>& args) {
    const auto number = [&args](std::size_t index) { return std::stoi(args.at(index)); };
    return {args.at(0), number(1), number(2), number(3) != 0, number(4) != 0,
            number(5),  number(6), number(7), number(8) != 0};
}

} // namespace

KIT_ROLE(sender) {
    const Order order = orderOf(args);
    std::signal(SIGPIPE, order.ignoresSigpipe ? SIG_IGN : SIG_DFL);
    // Written line by line, a burst would have a pause after each notification.
    static char buffer[1 << 20];
    std::setvbuf(stdout, buffer, order.ignoresSigpipe ? _IOFBF : _IOLBF, sizeof buffer);
    order.byDispatcher ? carryOutByDispatcher(order) : carryOut(order);
    return 0;
}

Outcome sendFromOtherProcess(const Order& order) {
    constexpr std::chrono::minutes cLimit(10);
    const auto start = std::chrono::steady_clock::now();
    VornTest::ChildProcess child =
        VornTest::ChildProcess::spawnRoleWith({"VORNTEST_GUARD_SECONDS=600"}, "sender", argumentsOf(order));
    Outcome outcome;
    std::istringstream lines(child.readAllOutput(cLimit));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word;
        int number = 0;
        words >> word >> number;
        if (word == "sent")
            outcome.sent.push_back(number);
        else if (word == "refused")
            ++outcome.refused[number];
        else
            ++outcome.retries;
    }
    const int status = child.wait(cLimit);
    outcome.signal = status > 128 ? status - 128 : 0;
    outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return outcome;
}

} // namespace Guarantees
