// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// buildd.cpp: reads "started NAME", "finished NAME SECONDS", "failed NAME REASON", and tells the subscribers
#include <VornException.h>
#include <VornExchange.h>
#include <VornPublisher.h>
#include <cstdio>
#include <iostream>
#include <unistd.h>
using namespace VornNet;

int main() {
    VornPublisher::Options options;
    options.sDirectory = "/var/lib/buildd"; // keeps events there, so that a killed service loses none
    options.onSubscribe = [](const VornPublisher::Subscriber& asking) {
        return VornString(asking.nUser == getuid() || asking.nUser == 0 ? "" : "not for you");
    };
    options.onLeave = [](const VornPublisher::Subscriber& gone, VornPublisher::Leaving, int) {
        std::printf("%s has left\n", gone.sFrom.c_str());
    };
    try {
        VornPublisher publisher("pipe:buildd", {"builds"}, options);
        for (VornString sKind, sName, sRest; std::cin >> sKind >> sName;) {
            const int nKind = sKind == "started" ? 1 : sKind == "finished" ? 2 : 3;
            if (nKind != 1)
                std::cin >> sRest;
            publisher.publish("builds", [&](VornConnection& content) {
                content.transfer(nKind);
                content.transfer(sName);
                if (nKind == 2)
                    VornExchange::transferDouble(content, std::stod(sRest));
                if (nKind == 3)
                    content.transfer(sRest);
            });
        }
        publisher.stop(std::chrono::seconds(5)); // sends what is left, and says goodbye
    } catch (const VornException& e) {
        std::fprintf(stderr, "buildd: %s (%d)\n", e.getText().c_str(), e.getCode());
        return 1;
    }
}
