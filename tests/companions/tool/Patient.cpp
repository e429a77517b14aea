// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A client or service with a fault, which the tool is to find. It ends with its standard input.
 *   patient sink|steady        makes a sink with the callbacks below, and prints its address
 *   patient dispatch ADDRESS HANDLE   posts a notification by a dispatcher
 *   patient publish ADDRESS    publishes an event of 20,000 bytes every 10 ms, and prints its address
 *   patient subscribe ADDRESS  subscribes there; when it is told "hang", its event handler does not return
 */

#include <VornDispatcher.h>
#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>
#include <VornProxyDependent.h>
#include <VornPublisher.h>
#include <VornSteadySink.h>
#include <VornSubscriber.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include <unistd.h>

using namespace VornNet;

namespace {

/** Callback 0 reads to the end, 1 throws, and 2 does not return. */
class Callback : public VornNotificationCallback {
    using VornNotificationCallback::VornNotificationCallback;

    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        switch (getId()) {
        case 0:
            readToEnd(*spConnection);
            break;
        case 1:
            throw VornException("lost its backend", ECONNRESET);
        default:
            readToEnd(*spConnection);
            std::cout << "in the callback" << std::endl;
            for (;;)
                ::pause();
        }
    }

    static void readToEnd(VornConnection& connection) {
        char byte = 0;
        long nError = 0;
        while (connection.receive(&byte, 1, &nError, true) > 0) {
        }
    }
};

void awaitEndOfInput() {
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    ::_exit(0); // whatever its threads are doing
}

template <typename Sink>
void serve() {
    Sink sink("patient");
    for (int i = 0; i < 3; ++i)
        sink.getCallbackContainer().add(new Callback(sink.getCallbackContainer().getNewId()));
    std::cout << "address " << sink.getCallbackAddress() << std::endl;
    awaitEndOfInput();
}

void dispatch(const char* address, long handle) {
    VornProxyDependent proxy(address, handle);
    VornDispatcher dispatcher;
    dispatcher.post(proxy, VornNotification(12));
    std::cout << "posted" << std::endl;
    awaitEndOfInput();
}

void publish(const char* address) {
    VornPublisher publisher(address, {"news"});
    std::cout << "address " << publisher.getAddress() << std::endl;
    std::thread([&publisher] {
        for (;; std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
            publisher.publish("news",
                              [](VornConnection& content) { content.transfer(std::string(20'000, 'x')); });
        }
    }).detach();
    awaitEndOfInput();
}

void subscribe(const char* address) {
    std::atomic<bool> isToHang{false};
    std::atomic<bool> isFirst{true};
    const VornSubscriber subscriber(address, "news", [&](VornConnection&, const VornSubscriber::Event&) {
        if (isFirst.exchange(false))
            std::cout << "subscribed" << std::endl;
        while (isToHang)
            ::pause();
    });
    std::string line;
    std::getline(std::cin, line);
    isToHang = line == "hang";
    awaitEndOfInput();
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "sink")
        serve<VornLibraryCallbackSink>();
    else if (role == "steady")
        serve<VornSteadySink>();
    else if (role == "dispatch" && argc == 4)
        dispatch(argv[2], std::atol(argv[3]));
    else if (role == "publish" && argc == 3)
        publish(argv[2]);
    else if (role == "subscribe" && argc == 3)
        subscribe(argv[2]);
    return 2;
}
