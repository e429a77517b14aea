// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * Each cause for which notifications do not arrive, set up with real processes. The tool names the cause, the
 * process, since when, and a remedy.
 */

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"
#include "Sanitizer.h"
#include "ToolRun.h"

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace VornTest;
using testing::_;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class VornnetDoctorCause : public ToolNetworkTest, public testing::WithParamInterface<std::string> {};

/** A program of the library with a fault, and the address of its sink. */
struct Patient {
    ChildProcess process;
    std::string address;

    std::string pid() const { return std::to_string(process.pid()); }

    std::string place() const { return address + " of process " + pid() + " (tool_patient, user root)"; }
};

Patient startSink(const std::string& transport, const std::string& role = "sink") {
    ChildProcess process =
        ChildProcess::spawn({VORNTEST_PATIENT, role}, {"QUORAX_CALLB_CONN_TYPE=" + transport});
    std::string address = addressOf(process);
    return {std::move(process), std::move(address)};
}

/** The only finding of a check that is worse than "ok"; none if there is none. */
Json findingOf(const std::string& check, const std::vector<std::string>& options = {}) {
    Json found;
    const Json findings =
        runTool(with({"doctor", "--json"}, options), {"QUORAX_CALLB_CONN_TYPE"}).json().at("findings");
    for (const Json& finding : findings) {
        if (finding.at("check") != check || finding.at("severity") == "ok")
            continue;
        EXPECT_TRUE(found.is_null()) << findings.dump(1);
        found = finding;
    }
    return found;
}

/** The same as soon as there is one whose text has the words, and whose time, if any, so many seconds. */
Json awaitFinding(const std::string& check, const std::string& words, double seconds = 0) {
    Json found;
    const auto isThere = [&] {
        found = findingOf(check);
        return !found.is_null() && found.at("text").get<std::string>().find(words) != std::string::npos &&
               found.value("seconds", seconds) >= seconds;
    };
    EXPECT_TRUE(awaitCondition(isThere, std::chrono::seconds(30))) << found.dump(1);
    return found;
}

std::string textOf(const Json& finding) {
    return finding.value("text", "");
}

/** That the finding is a problem of this process, with a time of at least so many seconds. */
void expectProblemOf(const Json& finding, pid_t pid, double seconds) {
    EXPECT_EQ(finding.at("severity"), "problem");
    EXPECT_EQ(finding.at("processes").at(0).at("pid"), pid);
    EXPECT_EQ(finding.at("processes").at(0).at("user"), "root");
    EXPECT_GE(finding.value("seconds", -1.0), seconds) << finding.dump(1);
}

std::string restartOf(const Patient& patient) {
    return "kill " + patient.pid() + "; " + VORNTEST_PATIENT + " sink";
}

/** Ends the sink's thread: its callback throws, or its sender resets the connection or sends nothing. */
void endThread(const Patient& sink, const std::string& transport) {
    if (transport == "udp") {
        int port = 0;
        const UniqueFd sender = udpSocket("127.0.0.1", port);
        udpSendTo(sender.get(), "127.0.0.1", 5023, "");
    } else if (transport == "socket") {
        const UniqueFd sender = connectTo(sink.address);
        resetOnClose(sender.get());
    } else {
        runTool({"notify", sink.address, "1", "5"}); // sent, or reset by the sink that throws
    }
}

} // namespace

TEST_P(VornnetDoctorCause, SinkWhoseThreadHasEnded_IsNamedWithTheCommandThatRestartsIt) {
    Patient sink = startSink(GetParam());
    endThread(sink, GetParam());
    const Json finding = awaitFinding("sinks", "thread has ended");
    if (underThreadSanitizer && GetParam() == "udp") {
        // Only the number of threads tells here, and that sanitizer's own thread might be the sink's.
        EXPECT_THAT(textOf(finding), HasSubstr("a callback does not return, or its thread has ended"));
        EXPECT_EQ(finding.at("severity"), "warning");
        return;
    }
    EXPECT_THAT(textOf(finding),
                StartsWith(sink.place() + ": the sink's thread has ended, and nobody takes"));
    EXPECT_EQ(finding.at("severity"), "problem");
    EXPECT_EQ(finding.at("processes").at(0).at("pid"), sink.process.pid());
    EXPECT_EQ(finding.at("remedy"), restartOf(sink));
}

INSTANTIATE_TEST_SUITE_P(Kinds, VornnetDoctorCause, testing::Values("pipe", "socket", "udp"),
                         [](const auto& instance) { return instance.param; });

class VornnetDoctorStream : public VornnetDoctorCause {};

TEST_P(VornnetDoctorStream, ClientsOfASinkWhoseThreadHasEnded_AreNamedWithTheTimeThatTheyWait) {
    Patient sink = startSink(GetParam());
    endThread(sink, GetParam());
    awaitFinding("sinks", "thread has ended");
    ChildProcess client = startTool({"connect", sink.address, "--expect", "int"});
    const Json finding = awaitFinding("sinks",
                                      "; 1 of 5 clients waits: process " + std::to_string(client.pid()) +
                                          " (vornnet, user root) for ",
                                      0.01);
    expectProblemOf(finding, sink.process.pid(), 0.01);
}

TEST_P(VornnetDoctorStream, SinkHeldByASilentPeer_IsNamedWithThePeerAndFreedByTheRemedy) {
    Patient sink = startSink(GetParam());
    ChildProcess silent = startTool({"connect", sink.address, "--expect", "int"});
    const Json finding = awaitFinding("sinks", sink.place() + " is held for ", 1);
    EXPECT_THAT(textOf(finding), HasSubstr(" by process " + std::to_string(silent.pid()) +
                                           " (vornnet, user root), which has connected and sends nothing"));
    expectProblemOf(finding, sink.process.pid(), 1);
    EXPECT_EQ(finding.at("remedy"), "kill " + std::to_string(silent.pid()));
    {
        const UniqueFd second = connectTo(sink.address);
        const UniqueFd third = connectTo(sink.address);
        EXPECT_THAT(textOf(awaitFinding("sinks", "clients wait")),
                    HasSubstr("; 2 of 5 clients wait: process " + std::to_string(::getpid()) + " ("));
    }
    EXPECT_EQ(runShell(finding.at("remedy").get<std::string>()).status, 0);
    EXPECT_TRUE(awaitCondition([] { return findingOf("sinks").is_null(); }));
}

TEST_P(VornnetDoctorStream, ServiceHeldByASilentClient_NamesBothAndWhoWaits) {
    const std::string address = GetParam() == "pipe" ? "pipe:held" : "socket:127.0.0.1:4711";
    ChildProcess service = startService(address, {"--expect", "int"});
    ChildProcess silent = startTool({"connect", address, "--expect", "int"});
    const Json warning = awaitFinding("services", address + " of process " + std::to_string(service.pid()) +
                                                      " (vornnet, user root) is held for ");
    EXPECT_EQ(warning.at("severity"), "warning");
    ChildProcess waiting = startTool({"connect", address, "--expect", "int"});
    const Json finding = awaitFinding(
        "services",
        "1 of 5 clients waits: process " + std::to_string(waiting.pid()) + " (vornnet, user root) for ", 1);
    EXPECT_THAT(textOf(finding),
                HasSubstr(" by process " + std::to_string(silent.pid()) + " (vornnet, user root)"));
    expectProblemOf(finding, service.pid(), 1);
    EXPECT_EQ(finding.at("remedy"), "kill " + std::to_string(silent.pid()));
}

TEST_P(VornnetDoctorStream, SinkWhoseCallbackDoesNotReturn_IsNamedWithTheWayToItsStack) {
    Patient sink = startSink(GetParam());
    EXPECT_EQ(runTool({"notify", sink.address, "2", "5"}).status, 0);
    EXPECT_EQ(nextLine(sink.process), "in the callback");
    const Json warning = awaitFinding("sinks", sink.place() + ": a callback does not return");
    EXPECT_EQ(warning.at("severity"), "warning");
    const UniqueFd client = connectTo(sink.address);
    const Json finding = awaitFinding("sinks", "1 of 5 clients waits");
    EXPECT_EQ(finding.at("severity"), "problem");
    EXPECT_EQ(finding.at("remedy"), "gdb -p " + sink.pid() + " -batch -ex 'thread apply all backtrace'");
}

TEST_P(VornnetDoctorStream, SteadySinkWhoseCallbackDoesNotReturn_IsNamedWithTheDispatcherThatWaits) {
    Patient sink = startSink(GetParam(), "steady");
    ChildProcess sender = ChildProcess::spawn({VORNTEST_PATIENT, "dispatch", sink.address, "2"});
    EXPECT_EQ(nextLine(sender), "posted");
    EXPECT_EQ(nextLine(sink.process), "in the callback");
    const Json finding =
        awaitFinding("sinks", sink.place() + ": a callback of the steady sink does not return");
    EXPECT_THAT(textOf(finding), HasSubstr("; 1 notification waits for it, the oldest of process " +
                                           std::to_string(sender.pid()) + " (tool_patient, user root)"));
    EXPECT_EQ(finding.at("remedy"), "gdb -p " + sink.pid() + " -batch -ex 'thread apply all backtrace'");
}

TEST_P(VornnetDoctorStream, SteadySinkWithASilentPeer_IsNotHeld) {
    Patient sink = startSink(GetParam(), "steady");
    const UniqueFd silent = connectTo(sink.address);
    EXPECT_TRUE(findingOf("sinks").is_null());
    EXPECT_EQ(runTool({"notify", sink.address, "0", "5", "--confirm"}).status, 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, VornnetDoctorStream, testing::Values("pipe", "socket"),
                         [](const auto& instance) { return instance.param; });

/** A publisher, and one who subscribes. */
struct Publication {
    Patient service;
    ChildProcess subscriber;

    std::string subscriberText() const {
        return "process " + std::to_string(subscriber.pid()) + " (tool_patient, user root)";
    }
};

Publication startPublication(const std::string& transport) {
    ChildProcess service = ChildProcess::spawn(
        {VORNTEST_PATIENT, "publish", transport == "pipe" ? "pipe:news" : "socket:127.0.0.1:0"});
    const std::string address = addressOf(service);
    ChildProcess subscriber = ChildProcess::spawn({VORNTEST_PATIENT, "subscribe", address});
    EXPECT_EQ(nextLine(subscriber), "subscribed");
    return {{std::move(service), address}, std::move(subscriber)};
}

TEST_P(VornnetDoctorStream, PublisherAndSubscriberAtWork_AreNoFinding) {
    Publication publication = startPublication(GetParam());
    EXPECT_THAT(runTool({"doctor"}, {"QUORAX_CALLB_CONN_TYPE"}),
                ended(0, HasSubstr("ok       services: 1 service, and none is held up\n"
                                   "ok       subscribers: 1 publisher with 1 subscriber, and none is "
                                   "held up\n")));
}

TEST_P(VornnetDoctorStream, SubscriberThatIsStopped_IsNamedWithTheCommandThatLetsItGoOn) {
    Publication publication = startPublication(GetParam());
    publication.subscriber.kill(SIGSTOP);
    const Json finding = awaitFinding("subscribers", " is stopped", 1);
    EXPECT_THAT(textOf(finding), StartsWith("a subscriber of " + publication.service.place() +
                                            " does not read its events for "));
    EXPECT_THAT(textOf(finding), testing::EndsWith(": " + publication.subscriberText() + " is stopped"));
    expectProblemOf(finding, publication.subscriber.pid(), 1);
    EXPECT_EQ(finding.at("remedy"), "kill -CONT " + std::to_string(publication.subscriber.pid()));
}

TEST_P(VornnetDoctorStream, SubscriberWhoseHandlerDoesNotReturn_IsNamed) {
    if (underThreadSanitizer)
        GTEST_SKIP() << keepsTheProcessAwake;
    Publication publication = startPublication(GetParam());
    publication.subscriber.writeLine("hang");
    const Json finding = awaitFinding("subscribers", "does not return", 1);
    EXPECT_THAT(textOf(finding), testing::EndsWith(": " + publication.subscriberText() +
                                                   ", whose event handler does not return"));
    expectProblemOf(finding, publication.subscriber.pid(), 1);
    EXPECT_EQ(finding.at("remedy"), "gdb -p " + std::to_string(publication.subscriber.pid()) +
                                        " -batch -ex 'thread apply all backtrace'");
}

TEST_P(VornnetDoctorStream, ServerThatIsStopped_IsNamedWithTheCommandThatLetsItGoOn) {
    Publication publication = startPublication(GetParam());
    publication.service.process.kill(SIGSTOP);
    const Json finding = awaitFinding("services", "the process is stopped for ");
    EXPECT_THAT(textOf(finding), StartsWith(publication.service.place()));
    EXPECT_EQ(finding.at("remedy"), "kill -CONT " + publication.service.pid());
}

TEST_F(VornnetDoctorCause, UdpSinkThatDoesNotRead_IsNamedWithTheDatagramsThatLieThere) {
    Patient sink = startSink("udp");
    EXPECT_EQ(runTool({"notify", sink.address, "2", "5"}).status, 0);
    EXPECT_EQ(nextLine(sink.process), "in the callback");
    EXPECT_EQ(runTool({"notify", sink.address, "0", "5"}).status, 0);
    const Json finding = awaitFinding("sinks", "datagrams lie unread");
    EXPECT_THAT(textOf(finding),
                StartsWith(sink.place() + ": nobody reads its datagrams: a callback does not "
                                          "return, or its thread has ended"));
    EXPECT_EQ(finding.at("severity"), "problem");
}

TEST_F(VornnetDoctorCause, SteadySinksAndDispatchersAtWork_AreNoFinding) {
    Patient sink = startSink("pipe", "steady");
    Patient second = startSink("socket", "steady");
    Patient third = startSink("udp", "steady");
    ChildProcess sender =
        startTool({"notify", sink.address, "0", "5", "--confirm", "--repeat", "1000000", "--every", "1"});
    nextLine(sender);
    EXPECT_THAT(runTool({"doctor"}, {"QUORAX_CALLB_CONN_TYPE"}),
                ended(0, AllOf(HasSubstr("ok       sinks: 3 sinks (3 steady), and none is held up\n"),
                               HasSubstr("ok       services: 0 services, and none is held up\n"))));
}

TEST_F(VornnetDoctorCause, BusySink_IsNoFinding) {
    Patient sink = startSink("pipe");
    ChildProcess sender =
        startTool({"notify", sink.address, "0", "5", "--repeat", "1000000", "--every", "2"});
    EXPECT_TRUE(findingOf("sinks").is_null());
    EXPECT_EQ(::kill(sender.pid(), 0), 0);
}

TEST_F(VornnetDoctorCause, OfOneProcess_IsToldOfItAlone) {
    Patient sick = startSink("pipe");
    endThread(sick, "pipe");
    awaitFinding("sinks", "thread has ended");
    Patient healthy = startSink("pipe");
    EXPECT_TRUE(findingOf("sinks", {"--pid", healthy.pid()}).is_null());
    EXPECT_THAT(textOf(findingOf("sinks", {"--pid", sick.pid()})), StartsWith(sick.place()));
    const Json process = findingOf("process", {"--pid", std::to_string(::getpid())});
    EXPECT_THAT(textOf(process), HasSubstr("has not loaded the library"));
    EXPECT_THAT(runTool({"doctor", "--pid", "2147483647"}),
                ended(1, _, "vornnet doctor: there is no process 2147483647\n"));
}

TEST_F(VornnetDoctorCause, ForAMonitor_IsOneLineWithThePluginsStatus) {
    const ToolResult well = runTool({"doctor", "--monitor"}, {"QUORAX_CALLB_CONN_TYPE"});
    EXPECT_EQ(well.status, 1); // the directory has no sticky bit here
    EXPECT_THAT(well.output, StartsWith("VORNNET WARNING - pipe-directory: "));
    Patient sink = startSink("pipe");
    endThread(sink, "pipe");
    awaitFinding("sinks", "thread has ended");
    const ToolResult sick = runTool({"doctor", "--monitor"}, {"QUORAX_CALLB_CONN_TYPE"});
    EXPECT_EQ(sick.status, 2);
    EXPECT_THAT(sick.output, StartsWith("VORNNET CRITICAL - sinks: " + sink.place()));
    EXPECT_EQ(std::count(sick.output.begin(), sick.output.end(), '\n'), 1);
    EXPECT_THAT(runTool({"doctor", "--monitor", "--pid", "2147483647"}),
                ended(3, "VORNNET UNKNOWN - there is no process 2147483647\n"));
}
