// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Process.h"
#include "PublisherFixture.h"

#include <VornDispatcher.h>
#include <VornMetrics.h>
#include <VornSteadySink.h>
#include <VornSubscriber.h>

#include <limits>
#include <sstream>
#include <string>
#include <utility>

#include <gmock/gmock.h>

using namespace VornNet;
using namespace VornTest;
using testing::HasSubstr;

namespace {

using Type = VornMetrics::Type;

class VornMetricsTest : public LeakCheckedTest {};

/** What a foreign parser reads: "NAME TYPE VALUE" for each sample, or its complaint. */
std::string readByParser(const std::string& text) {
    ChildProcess parser = ChildProcess::spawn(
        {"/usr/bin/python3", "-c",
         "import sys\n"
         "from prometheus_client.openmetrics.parser import text_string_to_metric_families as read\n"
         "for family in read(sys.stdin.buffer.read().decode()):\n"
         "    for sample in family.samples:\n"
         "        print(sample.name, family.type, sample.labels.get('name'), sample.value)"});
    parser.writeLine(text.substr(0, text.size() - 1));
    parser.closeInput();
    return parser.readAllOutput(std::chrono::seconds(60)) + parser.readAllErrors(std::chrono::seconds(60));
}

} // namespace

TEST_F(VornMetricsTest, WithoutNumbers_IsTheEnd) {
    EXPECT_EQ(VornMetrics().text(), "# EOF\n");
}

TEST_F(VornMetricsTest, NumbersOfOneMetric_StandTogether) {
    VornMetrics metrics;
    metrics.add("jobs", Type::gauge, "Jobs.", {{"name", "a"}, {"kind", "b"}}, 1)
        .add("done", Type::counter, "Jobs done.", {}, 1e15)
        .add("jobs", Type::gauge, "Others.", {{"name", "c"}}, -0.5);
    EXPECT_EQ(metrics.text(), "# TYPE jobs gauge\n"
                              "# HELP jobs Jobs.\n"
                              "jobs{name=\"a\",kind=\"b\"} 1\n"
                              "jobs{name=\"c\"} -0.5\n"
                              "# TYPE done counter\n"
                              "# HELP done Jobs done.\n"
                              "done_total 1000000000000000\n"
                              "# EOF\n");
}

TEST_F(VornMetricsTest, ValuesOfLabels_MayHoldAnyBytes) {
    const std::string characters =
        "\xC3\xA4 \xE2\x82\xAC \xE0\xA4\x85 \xED\x9F\xBF \xF0\x9F\x94\x94 \xF4\x8F\xBF\xBF";
    const std::string others =
        " \xFF \xC3 \xE0\x80\x80 \xED\xA0\x80 \xC0\xAF \xF0\x80\x80\x80 \xF4\x90\x80\x80 \xE2\x82";
    const std::string given = "\"\\\n" + characters + others;
    const std::string expected = "\\\"\\\\\\n" + characters + " ? ? ??? ??? ?? ???? ???? ??";
    VornMetrics metrics;
    metrics.add("jobs", Type::gauge, "A \"help\".", {{"name", given}}, 1);
    EXPECT_THAT(metrics.text(), HasSubstr("\njobs{name=\"" + expected + "\"} 1\n"));
    EXPECT_THAT(metrics.text(), HasSubstr("# HELP jobs A \\\"help\\\".\n"));
    EXPECT_THAT(readByParser(metrics.text()), testing::StartsWith("jobs gauge \"\\\n\xC3\xA4 "));
}

TEST_F(VornMetricsTest, NumbersThatAreNone_HaveNames) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    VornMetrics metrics;
    for (const double value : {infinity, -infinity, std::numeric_limits<double>::quiet_NaN()})
        metrics.add("x", Type::gauge, "X.", {{"name", std::to_string(value)}}, value);
    EXPECT_EQ(readByParser(metrics.text()), "x gauge inf inf\nx gauge -inf -inf\nx gauge nan nan\n");
}

TEST_F(VornMetricsTest, NamesThatAreNone_AreRefused) {
    const std::string refused = "VornMetrics::add: invalid metric. 22";
    VornMetrics metrics;
    for (const char* name : {"", "1x", "a-b", "a b", "\xC3\xA4"}) {
        EXPECT_EQ(thrownBy([&] { metrics.add(name, Type::gauge, "", {}, 1); }), refused);
        EXPECT_EQ(thrownBy([&] { metrics.add("x", Type::gauge, "", {{name, ""}}, 1); }), refused);
    }
    EXPECT_EQ(thrownBy([&] { metrics.add("x", Type::gauge, "", {{"a:b", ""}}, 1); }), refused);
    metrics.add("a:b", Type::gauge, "", {}, 1);
    EXPECT_EQ(thrownBy([&] { metrics.add("a:b", Type::counter, "", {}, 1); }), refused);
    EXPECT_EQ(metrics.text(), "# TYPE a:b gauge\n# HELP a:b \na:b 1\n# EOF\n");
}

TEST_F(VornMetricsTest, AnObjectOneOfWhoseNumbersIsRefused_AddsNone) {
    VornMetrics metrics;
    metrics.add("vornnet_dispatcher_queued", Type::counter, "Another's.", {}, 1);
    const std::string before = metrics.text();
    EXPECT_EQ(thrownBy([&] { metrics.add("a", VornDispatcher()); }), "VornMetrics::add: invalid metric. 22");
    EXPECT_EQ(metrics.text(), before);
}

TEST_F(VornMetricsTest, ObjectsOfTheLibrary_AddWhatTheyTellOfThemselves) {
    VornSteadySink::Options sinkOptions;
    sinkOptions.kind = VornSteadySink::Kind::pipe;
    VornSteadySink sink("sink", sinkOptions);
    VornPublisher publisher("pipe:metrics", {"builds"});
    VornSubscriber subscriber("pipe:metrics", "builds", [](VornConnection&, const VornSubscriber::Event&) {});
    EXPECT_TRUE(awaitCondition([&] { return publisher.statistics().nSubscribers == 1; }));
    publisher.publish("builds", writing("one"));
    EXPECT_TRUE(awaitCondition([&] { return subscriber.statistics().nEvents == 1; }));
    VornDispatcher dispatcher;
    VornProxyDependent proxy(sink.getCallbackAddress(), 7);
    dispatcher.post(proxy, VornNotification(12));
    EXPECT_TRUE(dispatcher.flush(std::chrono::seconds(10)));
    const VornSubscriber away("pipe:nobody", "builds", [](VornConnection&, const VornSubscriber::Event&) {});
    VornMetrics metrics;
    metrics.add("a", dispatcher).add("b", publisher).add("c", sink).add("d", subscriber).add("e", away);
    const std::string read = readByParser(metrics.text());
    for (const char* line :
         {"vornnet_dispatcher_posted_total counter a 1\n", "vornnet_dispatcher_unread_total counter a 1\n",
          "vornnet_dispatcher_queued gauge a 0\n", "vornnet_publisher_published_total counter b 1\n",
          "vornnet_publisher_subscribers gauge b 1\n", "vornnet_steady_sink_unknown_total counter c 1\n",
          "vornnet_subscriber_events_total counter d 1\n", "vornnet_subscriber_connected gauge d 1\n",
          "vornnet_subscriber_connected gauge e 0\n"})
        EXPECT_THAT(read, HasSubstr(line));

    const struct {
        const char* object;
        const char* counters;
        const char* gauges;
    } all[] = {{"dispatcher",
                "posted refused delivered sent unread expired dropped cancelled stopped tries doubtful_tries",
                "queued queued_bytes addresses connections"},
               {"publisher",
                "published sent sent_bytes gaps missed connections subscribed refused timed_out left",
                "subscribers behind"},
               {"steady_sink", "delivered failed unknown refused timed_out too_long incomplete",
                "waiting connections"},
               {"subscriber", "events failed gaps missed repeated subscriptions tries", "newest connected"}};

    for (const auto& [object, counters, gauges] : all) {
        for (const auto& [names, end] :
             {std::pair(counters, "_total counter "), std::pair(gauges, " gauge ")}) {
            std::istringstream words(names);
            for (std::string name; words >> name;)
                EXPECT_THAT(read, HasSubstr(std::string("vornnet_") + object + "_" + name + end));
        }
    }
}
