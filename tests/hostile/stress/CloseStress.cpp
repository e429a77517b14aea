// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Closes each kind of server at a random moment of a wait, again and again: close_stress ROUNDS [SEED].
// One thread waits in a loop, another closes. A failed bind, a stray client, a descriptor, a thread or a
// socket file too many, or a close that does not come back ends the program with status 1.

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"

#include <VornException.h>
#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornUDPServerSocket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace VornNet;
using namespace VornTest;
using Clock = std::chrono::steady_clock;

namespace {

struct Kind {
    std::string name;
    std::function<VornIPCServer*()> make;
};

struct Result {
    long failures = 0;
    long strays = 0;
    Clock::duration worst{};
};

/** One wait of the waiting thread. */
void waitOnce(VornIPCServer& server, Result& result) {
    try {
        const VornSmartPointer<VornConnection> client = server.waitForClient(false);
        if (client != nullptr)
            ++result.strays;
    } catch (const VornSupport::VornException& e) {
        // A pipe server that is closed between opening and waiting says so; nothing else may happen.
        if (e.getText() != "VornPipeServer::waitForClient: pipe not setup. ") {
            std::fprintf(stderr, "%s (%d)\n", e.getText().c_str(), e.getCode());
            ++result.failures;
        }
    }
}

/** Lets a random, short time pass without giving up the processor for long. */
void dawdle(std::mt19937& random) {
    for (auto left = random() % 2000; left > 0; --left)
        std::atomic_signal_fence(std::memory_order_seq_cst);
    if (random() % 4 == 0)
        std::this_thread::yield();
}

Result stress(const Kind& kind, long rounds, unsigned int seed) {
    Result result;
    VornSmartPointer<VornIPCServer> server = kind.make();
    std::atomic<long> waits = 0;
    std::thread waiter([&] {
        for (long i = 0; i < rounds; ++i) {
            waitOnce(*server, result);
            ++waits;
        }
    });
    std::mt19937 random(seed);
    while (waits < rounds) {
        dawdle(random);
        const Clock::time_point start = Clock::now();
        server->close();
        result.worst = std::max(result.worst, Clock::now() - start);
    }
    waiter.join();
    return result;
}

std::vector<Kind> allKinds() {
    std::vector<Kind> kinds = {{"pipe", [] { return new VornPipeServer("stress"); }}};
    for (const char* address : {"*", "127.0.0.1", "127.0.0.2"}) {
        for (const int port : {6201, 0}) {
            const std::string place = std::string(address) + ":" + std::to_string(port);
            kinds.push_back({"tcp " + place, [=] { return new VornServerSocket(port, 5, address); }});
            kinds.push_back({"udp " + place, [=] { return new VornUDPServerSocket(port, address, 100); }});
        }
    }
    return kinds;
}

std::size_t socketFiles() {
    const std::filesystem::directory_iterator files{pipeDirectory()};
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

} // namespace

int main(int argc, char** argv) {
    const long rounds = argc > 1 ? std::atol(argv[1]) : 10'000;
    const auto seed = static_cast<unsigned int>(argc > 2 ? std::atol(argv[2]) : 1);
    enterSandbox();
    std::thread([] {}).join(); // with the first thread, a sanitizer starts one of its own
    bool isClean = true;
    for (const Kind& kind : allKinds()) {
        const int descriptors = openDescriptors();
        const std::size_t threads = threadIds().size();
        const Result result = stress(kind, rounds, seed);
        const bool isEven = awaitCondition([&] { return threadIds().size() == threads; }) &&
                            openDescriptors() == descriptors && socketFiles() <= 1;
        const bool isGood = result.failures == 0 && result.strays == 0 && isEven;
        std::printf("%-16s %ld rounds, seed %u: %ld failures, %ld stray clients, %s, worst close %.2f ms\n",
                    kind.name.c_str(), rounds, seed, result.failures, result.strays,
                    isEven ? "nothing left behind" : "SOMETHING LEFT BEHIND",
                    std::chrono::duration<double, std::milli>(result.worst).count());
        std::fflush(stdout);
        isClean = isClean && isGood;
    }
    return isClean ? EXIT_SUCCESS : EXIT_FAILURE;
}
