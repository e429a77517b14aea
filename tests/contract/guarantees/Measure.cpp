// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Prints the tables of docs/guarantees.md: measure_guarantees [SECTION...], by hand only. It takes minutes,
// and the figures are this machine's.

#include "Experiments.h"
#include "Process.h"
#include "Sandbox.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>

#include <unistd.h>

using namespace Guarantees;

namespace {

constexpr int cRuns = 10;
constexpr int cBurst = 100;
constexpr Kind cKinds[] = {Kind::pipe, Kind::socket, Kind::udp};

std::string transportOf(Kind kind) {
    return kind == Kind::pipe ? "pipe" : kind == Kind::socket ? "TCP" : "UDP";
}

std::string timeOf(int micros) {
    if (micros == 0)
        return "none";
    const std::string sMillis = std::to_string(micros / 1000);
    return (micros % 1000 == 0 ? sMillis : sMillis + "." + std::to_string(micros % 1000 / 100)) + " ms";
}

/** Smallest and largest of the numbers of several runs. */
class Range {
public:
    void add(double number) { m_numbers.push_back(number); }

    std::string text(int decimals = 0) const {
        const auto [least, most] = std::minmax_element(m_numbers.begin(), m_numbers.end());
        const std::string sLeast = written(*least, decimals);
        const std::string sMost = written(*most, decimals);
        return sLeast == sMost ? sMost : sLeast + " to " + sMost;
    }

private:
    static std::string written(double number, int decimals) {
        char text[32];
        std::snprintf(text, sizeof text, "%.*f", decimals, number);
        return text;
    }

    std::vector<double> m_numbers;
};

/** One row of a table: several runs of the same delivery. */
struct Runs {
    Runs(Kind kind, const Order& order, const Callback& callback = {})
        : Runs([&] { return deliver(kind, order, callback); }) {}

    explicit Runs(const std::function<Delivery()>& deliverOnce) {
        for (int run = 0; run < cRuns; ++run) {
            const Delivery delivery = deliverOnce();
            int count = 0;
            for (const auto& [code, times] : delivery.sender.refused) {
                count += times;
                codes[code] += times;
            }
            delivered.add(static_cast<double>(delivery.received.size()));
            refused.add(count);
            lost.add(delivery.lostSilently());
            retries.add(delivery.sender.retries);
            seconds.add(delivery.sender.seconds);
            killed += delivery.sender.signal == SIGPIPE ? 1 : 0;
        }
    }

    /** How many were refused, and by which codes. */
    std::string refusals() const {
        std::string sCodes;
        for (const auto& [code, count] : codes)
            sCodes += (sCodes.empty() ? "" : ", ") + std::to_string(code);
        return refused.text() + (sCodes.empty() ? "" : " (" + sCodes + ")");
    }

    Range delivered;
    Range refused;
    Range lost;
    Range retries;
    Range seconds;
    std::map<int, int> codes; // and how often each came
    int killed = 0;
};

void row(const std::vector<std::string>& cells) {
    for (const std::string& sCell : cells)
        std::printf("| %s ", sCell.c_str());
    std::printf("|\n");
    std::fflush(stdout);
}

void head(const std::vector<std::string>& cells) {
    row(cells);
    row(std::vector<std::string>(cells.size(), "---"));
}

void measureBurst() {
    head({"transport", "pause", "delivered of " + std::to_string(cBurst), "refused (codes)",
          "lost in silence", "seconds"});
    for (const Kind kind : cKinds) {
        for (const int pause : {0, 1000, 5000, 20000}) {
            Order order;
            order.count = cBurst;
            order.pauseMicros = pause;
            const Runs runs(kind, order);
            row({transportOf(kind), timeOf(pause), runs.delivered.text(), runs.refusals(), runs.lost.text(),
                 runs.seconds.text(1)});
        }
    }
}

void measurePairings() {
    head({"transport", "sender", "sink", "delivered of " + std::to_string(cBurst), "told (codes)",
          "lost in silence", "seconds"});
    for (const Kind kind : cKinds) {
        for (const bool byDispatcher : {false, true}) {
            for (const bool toSteady : {false, true}) {
                Order order;
                order.count = cBurst;
                order.byDispatcher = byDispatcher;
                const Runs runs(
                    [&] { return toSteady ? deliverToSteady(kind, order) : deliver(kind, order); });
                row({transportOf(kind), byDispatcher ? "`VornDispatcher`" : "`remoteNotify()`",
                     toSteady ? "`VornSteadySink`" : "`VornLibraryCallbackSink`", runs.delivered.text(),
                     runs.refusals(), runs.lost.text(), runs.seconds.text(1)});
            }
        }
    }
}

void measureSlowCallback() {
    head({"transport", "pause", "delivered of 50", "refused (codes)", "lost in silence"});
    for (const Kind kind : cKinds) {
        for (const int pause : {0, 5000, 40000}) {
            Order order;
            order.count = 50;
            order.pauseMicros = pause;
            Callback callback;
            callback.milliseconds = 20;
            const Runs runs(kind, order, callback);
            row({transportOf(kind), timeOf(pause), runs.delivered.text(), runs.refusals(), runs.lost.text()});
        }
    }
}

void measureRetry() {
    head({"transport", "delivered of " + std::to_string(cBurst), "retries", "given up", "lost in silence"});
    for (const Kind kind : cKinds) {
        Order order;
        order.count = cBurst;
        order.pauseMicros = 20000;
        order.mostTries = 10;
        const Runs runs(kind, order);
        row({transportOf(kind), runs.delivered.text(), runs.retries.text(), runs.refusals(),
             runs.lost.text()});
    }
}

void measureMoves() {
    head({"callback", "sender closes", "moves of 50 deliveries"});
    for (const bool readsToEnd : {false, true}) {
        for (const int hold : {0, 200, 5000}) {
            Order each;
            each.holdMicros = hold;
            const int moves = movesInSequence(Kind::socket, 50, each, {readsToEnd, 0});
            row({readsToEnd ? "reads to the end" : "returns at once",
                 hold == 0 ? "at once" : timeOf(hold) + " after its last write", std::to_string(moves)});
        }
    }
}

void measureQueue() {
    constexpr int cMost = 50;
    head({"transport", "sent while the first is being handled", "the next"});
    for (const Kind kind : cKinds) {
        const int sent = sentToStuckSink(kind, cMost) - 1;
        row({transportOf(kind), sent + 1 == cMost ? "all" : std::to_string(sent),
             sent + 1 == cMost ? "is sent too" : "blocks"});
    }
}

void measureSigpipe() {
    head({"SIGPIPE", "bursts that killed the sender", "refused with 32 in all bursts"});
    for (const bool ignored : {false, true}) {
        Order order;
        order.count = cBurst;
        order.ignoresSigpipe = ignored;
        Runs runs(Kind::pipe, order);
        row({ignored ? "ignored" : "at its default",
             std::to_string(runs.killed) + " of " + std::to_string(cRuns),
             ignored ? std::to_string(runs.codes[EPIPE]) : "-"});
    }
}

void measureTwoSinks() {
    head({"transport", "addresses", "reached the first of 10", "reached the second"});
    for (const Kind kind : cKinds) {
        const TwoSinks sinks = deliverToFirstOfTwo(kind, 10);
        row({transportOf(kind), sinks.sameAddress ? "the same" : "two", std::to_string(sinks.first),
             std::to_string(sinks.second)});
    }
}

void measureUdpSize() {
    constexpr int cOverhead = 8 + 4 + 4; // handle, id, and the length of the text
    head({"bytes of the notification", "sender sees", "delivered"});
    for (const int size : {65507, 65508}) {
        Order order;
        order.payload = size - cOverhead;
        const Delivery delivery = deliver(Kind::udp, order);
        row({std::to_string(size), delivery.sender.sent.empty() ? "an exception" : "success",
             std::to_string(delivery.received.size())});
    }
}

void measureEnds() {
    struct Case {
        Kind kind;
        Blow blow;
        const char* text;
    };

    constexpr int cCount = 8;
    head({"transport", "what ends the sink", "of the next 8: sent", "blocked"});
    for (const Case& one :
         {Case{Kind::udp, Blow::emptyDatagram, "an empty datagram, from anybody"},
          Case{Kind::socket, Blow::reset, "a connection reset before the callback id was read"},
          Case{Kind::pipe, Blow::callbackThrows, "a callback that throws code 104"},
          Case{Kind::socket, Blow::callbackThrows, "a callback that throws code 104"}}) {
        const Ended ended = endSink(one.kind, one.blow, cCount);
        const auto blocked = ended.sender.refused.find(EINTR);
        row({transportOf(one.kind), std::string(one.text) + (ended.ended ? "" : " (it did not)"),
             std::to_string(ended.sender.sent.size()),
             std::to_string(blocked == ended.sender.refused.end() ? 0 : blocked->second)});
    }
}

void measureSilentHost() {
    head({"host", "seconds until the exception", "code"});
    const Outcome outcome = sendToSilentHost();
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.0f", outcome.seconds);
    row({"drops all packets", seconds,
         outcome.refused.empty() ? "none" : std::to_string(outcome.refused.begin()->first)});
}

struct Section {
    const char* name;
    void (*measure)();
};

constexpr Section cSections[] = {
    {"burst", measureBurst},     {"pairings", measurePairings},     {"slow-callback", measureSlowCallback},
    {"retry", measureRetry},     {"moves", measureMoves},           {"queue", measureQueue},
    {"sigpipe", measureSigpipe}, {"two-sinks", measureTwoSinks},    {"udp-size", measureUdpSize},
    {"ends", measureEnds},       {"silent-host", measureSilentHost}};

int measure(const std::vector<std::string>& names) {
    for (const Section& section : cSections) {
        if (!names.empty() && std::find(names.begin(), names.end(), section.name) == names.end())
            continue;
        std::printf("<!-- measured: %s -->\n", section.name);
        section.measure();
        std::printf("<!-- measured end -->\n");
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments == std::vector<std::string>{"--list"}) {
        for (const Section& section : cSections)
            std::printf("%s\n", section.name);
        return 0;
    }
    VornTest::enterSandbox();
    std::signal(SIGPIPE, SIG_IGN);
    try {
        if (arguments.size() >= 2 && arguments[0] == "--kit-role")
            return VornTest::runRole(arguments[1], {arguments.begin() + 2, arguments.end()});
        return measure(arguments);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "measure_guarantees: %s\n", e.what());
        return 1;
    }
}
