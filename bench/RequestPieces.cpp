// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Request.h"

/**
 * The same request written value by value straight on the connection. Over TCP the second value waits until
 * the first is acknowledged (Nagle's algorithm), and the server, which has nothing to answer yet, delays
 * that.
 */
namespace Bench {

namespace {

/** Asks a few times first: a young TCP connection acknowledges at once, and only the lasting state counts. */
template <typename End>
class StandingDialogue : public Dialogue<End> {
public:
    explicit StandingDialogue(Road road) : Dialogue<End>(road) {
        constexpr int cFirst = 3;
        for (int i = 0; i < cFirst; ++i)
            this->operate();
    }
};

class PosixPieces : public PosixRequest {
public:
    using PosixRequest::PosixRequest;

    void ask() const {
        const RequestBytes request = encoded();
        send(request.data(), 4);
        send(request.data() + 4, 4);
        send(request.data() + 8, cText);
        benchmark::DoNotOptimize(receiveNumber());
    }
};

class VornnetPieces : public VornnetRequest {
public:
    using VornnetRequest::VornnetRequest;

    void ask() {
        connection().transfer(7);
        connection().transfer(text());
        benchmark::DoNotOptimize(connection().receiveInt());
    }
};

} // namespace

void addRequestPieces() {
    for (const Road road : {Road::pipe, Road::tcp}) {
        const std::string workload = std::string("request-pieces-") + nameOf(road);
        addContender<StandingDialogue<PosixRequest>>(workload, "limit", 1, road);
        addContender<StandingDialogue<VornnetRequest>>(workload, "vornnet", 1, road);
        addContender<StandingDialogue<PosixPieces>>(workload, "pieces-by-hand", 1, road);
        addContender<StandingDialogue<VornnetPieces>>(workload, "vornnet-pieces", 1, road);
    }
}

} // namespace Bench
