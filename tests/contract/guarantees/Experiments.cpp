// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Experiments.h"

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"

#include <algorithm>
#include <set>
#include <stdexcept>

#include <VornException.h>
#include <VornSleep.h>
#include <VornSteadySink.h>

using namespace VornTest;

namespace Guarantees {

namespace {

/** What a callback of the experiments has received; written on the sink's thread. */
struct Log {
    std::mutex mutex;
    std::vector<int> ids;
    int broken = 0;
};

RecordingCallback::Action readerFor(Log& log, const Callback& callback) {
    return [&log, callback](auto& spConnection) {
        std::string content;
        try {
            const int id = spConnection->receiveInt();
            if (callback.readsText)
                spConnection->receiveString();
            const std::lock_guard lock(log.mutex);
            log.ids.push_back(id);
        } catch (const VornSupport::VornException&) {
            const std::lock_guard lock(log.mutex);
            ++log.broken;
        }
        if (callback.readsToEnd)
            readToEnd(*spConnection);
        VornSupport::VornSleep(callback.milliseconds);
        return content;
    };
}

CallbackPointer addReader(VornNet::VornLibraryCallbackSink& sink, Log& log, const Callback& callback) {
    return addCallback(sink, readerFor(log, callback));
}

void awaitServing(const WatchedSink& sink) {
    if (!sink.awaitServing())
        throw std::runtime_error("the sink does not wait for clients");
}

} // namespace

int Delivery::lostSilently() const {
    const std::set<int> arrived(received.begin(), received.end());
    return static_cast<int>(std::count_if(sender.sent.begin(), sender.sent.end(),
                                          [&arrived](int id) { return arrived.count(id) == 0; }));
}

Delivery deliver(Kind kind, Order order, const Callback& callback) {
    enterFreshNetwork();
    Log log;
    WatchedSink sink(kind);
    const CallbackPointer reader = addReader(*sink, log, callback);
    awaitServing(sink);
    Delivery result;
    result.addressBefore = sink.address();
    order.address = sink.address();
    result.sender = sendFromOtherProcess(order);
    awaitServing(sink); // what is still in the queue keeps it from waiting
    result.addressAfter = sink.address();
    sink.destroy();
    result.received = log.ids;
    result.broken = log.broken;
    return result;
}

Delivery deliverToSteady(Kind kind, Order order) {
    enterFreshNetwork();
    Log log;
    VornNet::VornSteadySink::Options options;
    options.kind = kind == Kind::pipe     ? VornNet::VornSteadySink::Kind::pipe
                   : kind == Kind::socket ? VornNet::VornSteadySink::Kind::tcp
                                          : VornNet::VornSteadySink::Kind::udp;
    const CallbackPointer reader = new RecordingCallback(0, readerFor(log, {}));
    Delivery result;
    {
        VornNet::VornSteadySink sink("steady", options);
        sink.getCallbackContainer().add(static_cast<VornNet::VornNotificationCallback*>(reader));
        result.addressBefore = sink.getCallbackAddress();
        order.address = result.addressBefore;
        result.sender = sendFromOtherProcess(order);
        const auto nCalled = [&] { return sink.statistics().nDelivered; };
        // What was sent is all that can come; where some of it does not, the wait ends when nothing comes any
        // more.
        for (std::uint64_t nBefore = 0; nCalled() < result.sender.sent.size(); nBefore = nCalled()) {
            if (!awaitCondition([&] { return nCalled() > nBefore; }, std::chrono::seconds(1)))
                break;
        }
        result.addressAfter = sink.getCallbackAddress();
    }
    result.received = log.ids;
    result.broken = log.broken;
    return result;
}

int sentToStuckSink(Kind kind, int most) {
    enterFreshNetwork();
    Gate entered;
    Gate mayReturn;
    Outcome outcome;
    WatchedSink sink(kind);
    const CallbackPointer stuck = addCallback(*sink, [&](auto&) {
        entered.open();
        mayReturn.await();
        return std::string();
    });
    awaitServing(sink);
    Order order;
    order.address = sink.address();
    order.patience = 1;
    const int sentBefore = static_cast<int>(sendFromOtherProcess(order).sent.size());
    if (!entered.await())
        throw std::runtime_error("the callback was not called");
    int sent = sentBefore;
    for (; sent < most; ++sent) {
        outcome = sendFromOtherProcess(order);
        if (outcome.sent.empty())
            break;
    }
    mayReturn.open();
    return sent;
}

} // namespace Guarantees
