// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What docs/debugging.md shows of gdb is what gdb shows, and gdb finds the printers where they are installed.
 */

#include "GdbRun.h"

#include "Await.h"
#include "Posix.h"
#include "Process.h"

#include <filesystem>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

using namespace VornTest;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/** What is typed and printed, as the page shows it. */
struct Transcript {
    Lines commands; ///< given to gdb
    Lines values;   ///< what it prints, without places in the source
};

bool isPlace(const std::string& line) {
    // Frames, source lines and threads have numbers and paths that are different in each build.
    static const std::regex place(R"(^(#\d+ .*|\d+\t.*|\[.*\]|\$ .*)$)");
    return std::regex_match(line, place);
}

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/** The transcripts in the page's blocks, in order. */
std::vector<Transcript> transcripts() {
    std::vector<Transcript> result;
    bool isMarked = false;
    bool isInside = false;
    for (const std::string& line : linesOf(readTextFile(VORNTEST_PAGE))) {
        if (line == "<!-- block: gdb -->") {
            isMarked = true;
        } else if (isMarked) {
            isMarked = false;
            isInside = true;
            result.emplace_back();
        } else if (line == "```") {
            isInside = false;
        } else if (isInside && line.rfind("(gdb) ", 0) == 0) {
            result.back().commands.push_back(line.substr(6));
        } else if (isInside && !isPlace(line)) {
            result.back().values.push_back(line);
        }
    }
    return result;
}

/** What gdb prints in answer to the commands. */
Lines valuesOf(const std::vector<std::string>& target, const Lines& commands) {
    Lines arguments = {"-ex", "echo @@\\n"};
    const Lines rest = executing(commands);
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    arguments.insert(arguments.end(), target.begin(), target.end());
    const GdbOutput run = runGdb(arguments);
    EXPECT_THAT(run.output, HasSubstr("@@\n")) << run.errors;
    Lines values;
    for (const std::string& line : linesOf(run.output.substr(run.output.find("@@\n") + 3))) {
        if (!isPlace(line))
            values.push_back(line);
    }
    return values;
}

/** Whether a thread of the process waits for bytes. */
bool isReceiving(pid_t pid) {
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    const std::string call = std::to_string(SYS_recvfrom) + " ";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        if (readTextFile(task.path().string() + "/syscall").rfind(call, 0) == 0)
            return true;
    }
    return false;
}

/** The core dump of a sink that serves a client which sends nothing. */
std::string dumpBusySink(const std::string& directory) {
    ChildProcess sink = ChildProcess::spawn({VORNTEST_TOOL, "sink", "--type", "socket", "--callbacks", "2"});
    EXPECT_EQ(sink.readLine(), "address socket:127.0.0.1:5023");
    const UniqueFd peer = tcpConnect("127.0.0.1", 5023);
    EXPECT_TRUE(awaitCondition([&sink] { return isReceiving(sink.pid()); }));
    ChildProcess gcore = ChildProcess::spawn({"gcore", "-o", directory + "/sink", std::to_string(sink.pid())},
                                             {"DEBUGINFOD_URLS"});
    gcore.closeInput();
    const std::string output = gcore.readAllOutput(std::chrono::seconds(100));
    EXPECT_EQ(gcore.wait(), 0) << output << gcore.readAllErrors();
    return directory + "/sink." + std::to_string(sink.pid());
}

/** Installs what belongs to the tools. */
void install(const std::string& prefix) {
    ChildProcess cmake =
        ChildProcess::spawn({"cmake", "-DCMAKE_INSTALL_COMPONENT=tools", "-DCMAKE_INSTALL_PREFIX=" + prefix,
                             "-P", VORNTEST_INSTALLATION});
    const std::string output = cmake.readAllOutput();
    EXPECT_EQ(cmake.wait(), 0) << output << cmake.readAllErrors();
}

} // namespace

TEST_F(GdbPrinters, TranscriptOfACoreDump_IsAsThePageShowsIt) {
    const TemporaryDirectory directory;
    const std::string core = dumpBusySink(directory.path());
    const Transcript page = transcripts().at(1);
    EXPECT_EQ(valuesOf({VORNTEST_TOOL, core}, page.commands), page.values);
}

TEST_F(GdbPrinters, TranscriptThatSetsTheLogLevel_IsAsThePageShowsItOfAnAttachedProcess) {
    ChildProcess sink = ChildProcess::spawn({VORNTEST_TOOL, "sink", "--type", "pipe", "--log-level", "9"});
    const std::string address = sink.readLine().substr(std::string("address ").size());
    // It stops in the C library, of which most systems have no debug symbols.
    const Transcript page = transcripts().at(0);
    const Lines values = valuesOf(
        {"-p", std::to_string(sink.pid()), "-iex", "set debug-file-directory /nonexistent"}, page.commands);
    EXPECT_EQ(values, page.values);
}

TEST_F(GdbPrinters, LogLevel_IsThatOfTheProcessAfterwards) {
    ChildProcess server = ChildProcess::spawn({VORNTEST_DEBUGGEE, "await"});
    EXPECT_EQ(server.readLine(), "level -1");
    runGdb({"-iex", "set debug-file-directory /nonexistent", "-p", std::to_string(server.pid()), "-ex",
            "vornnet log-level 9"});
    server.writeLine("");
    EXPECT_EQ(server.readLine(), "level 9, admitted");
    const GdbOutput wrong = runGdb({"-ex", "vornnet log-level ten"});
    EXPECT_THAT(wrong.errors, HasSubstr("N is a number from -1 to 9"));
}

TEST_F(GdbPrinters, Page_HasNoOtherTranscripts) {
    EXPECT_EQ(transcripts().size(), 2U);
}

TEST_F(GdbPrinters, InstalledPrinters_AreLoadedTogetherWithTheLibrary) {
    const TemporaryDirectory directory;
    install(directory.path());
    // gdb looks below its own directory, here below another one, for the full path of the library.
    const std::string scripts = directory.path() + "/share/gdb/auto-load";
    const std::string library = std::filesystem::canonical(VORNTEST_VORNNET_FILE);
    Lines installed;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(scripts)) {
        if (entry.is_regular_file())
            installed.push_back(entry.path());
    }
    ASSERT_THAT(installed, ElementsAre(scripts + VORNTEST_LIBDIR "/" +
                                       std::filesystem::path(library).filename().string() + "-gdb.py"));
    const std::string place = scripts + library + "-gdb.py";
    std::filesystem::create_directories(std::filesystem::path(place).parent_path());
    std::filesystem::copy_file(installed[0], place, std::filesystem::copy_options::skip_existing);
    ChildProcess gdb = ChildProcess::spawn({"gdb",    "-nx",
                                            "-q",     "-batch",
                                            "-iex",   "set debuginfod enabled off",
                                            "-iex",   "set auto-load scripts-directory " + scripts,
                                            "-iex",   "set auto-load safe-path " + scripts,
                                            "-ex",    "set disable-randomization off",
                                            "-ex",    "break stopHere",
                                            "-ex",    "run proxies",
                                            "-ex",    "up",
                                            "-ex",    "output identifier",
                                            "--args", VORNTEST_DEBUGGEE});
    gdb.closeInput();
    EXPECT_THAT(gdb.readAllOutput(std::chrono::seconds(100)),
                testing::EndsWith("udp:10.0.0.5:5024, handle -1"))
        << gdb.readAllErrors();
    gdb.wait();
}
