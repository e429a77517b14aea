// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// buildwatch.cpp: prints every build event once, in order, until SIGINT or SIGTERM
#include <VornException.h>
#include <VornExchange.h>
#include <VornSubscriber.h>
#include <csignal>
#include <cstdio>
using namespace VornNet;

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // what is printed is out before the position is noted
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    VornSubscriber::Options options;
    options.start = VornSubscriber::Start::oldest;
    options.sPositionFile = "buildwatch.position"; // a new process goes on where the last one was
    options.onGap = [](const VornSubscriber::Gap&) { std::puts("missed some: look at the list of builds"); };
    options.onState = [](const VornSubscriber::Status& status) {
        std::printf("-- %s %s\n", VornSubscriber::nameOf(status.state), status.sReason.c_str());
    };
    try {
        VornSubscriber builds(
            "pipe:buildd", "builds",
            [](VornConnection& content, const VornSubscriber::Event& event) {
                const int nKind = content.receiveInt();
                const VornString sName = content.receiveString();
                const auto nNumber = static_cast<unsigned long long>(event.position.nNumber);
                if (nKind == 1)
                    std::printf("%llu %s started\n", nNumber, sName.c_str());
                else if (nKind == 2)
                    std::printf("%llu %s finished, %.1f s\n", nNumber, sName.c_str(),
                                VornExchange::receiveDouble(content));
                else
                    std::printf("%llu %s failed: %s\n", nNumber, sName.c_str(),
                                content.receiveString().c_str());
            },
            options);
        int nSignal = 0;
        sigwait(&signals, &nSignal);
    } catch (const VornException& e) {
        std::fprintf(stderr, "buildwatch: %s (%d)\n", e.getText().c_str(), e.getCode());
        return 1;
    }
}
