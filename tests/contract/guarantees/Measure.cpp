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

using namespace Guarantees;

namespace {

constexpr int cRuns = 10;
constexpr int cBurst = 100;
constexpr Kind cKinds[] = {Kind::pipe, Kind::socket, Kind::udp};

std::string transportOf(Kind kind) {
    return kind == Kind::pipe ? "pipe" : kind == Kind::socket ? "TCP" : "UDP";
}

std::string timeOf(int micros) {
    return micros == 0 ? "none" : std::to_string(micros / 1000) + " ms";
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

struct Section {
    const char* name;
    void (*measure)();
};

constexpr Section cSections[] = {
    {"burst", measureBurst}, {"pairings", measurePairings}, {"slow-callback", measureSlowCallback},
    {"retry", measureRetry}, {"queue", measureQueue},       {"sigpipe", measureSigpipe}};

int measure(const std::vector<std::string>& names) {
    for (const Section& section : cSections) {
        if (!names.empty() && std::find(names.begin(), names.end(), section.name) == names.end())
            continue;
        std::printf("\n%s\n\n", section.name);
        section.measure();
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
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
