// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * What docs/debugging.md shows of tshark is what tshark shows, its table of preferences is the dissector's,
 * and tshark finds the dissector where it is installed.
 */

#include "Process.h"
#include "TsharkRun.h"

#include <VornProxyDependent.h>

#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace VornTest;
using namespace VornNet;
using testing::HasSubstr;

namespace {

/** A command with its output, as the page shows them. */
struct Transcript {
    std::string command;
    Lines output;
};

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string page() {
    return readTextFile(VORNTEST_PAGE);
}

std::vector<Transcript> transcripts() {
    std::vector<Transcript> result;
    bool isMarked = false;
    bool isInside = false;
    for (const std::string& line : linesOf(page())) {
        if (line == "<!-- block: tshark -->")
            isMarked = true;
        else if (isMarked) {
            isMarked = false;
            isInside = true;
        } else if (line == "```")
            isInside = false;
        else if (isInside && line.rfind("$ ", 0) == 0)
            result.push_back({line.substr(2), {}});
        else if (isInside)
            result.back().output.push_back(line);
    }
    return result;
}

/** Without what is different each time: a packet's number, its time and the port that the kernel chose. */
std::string lasting(const std::string& line) {
    static const std::regex start(R"(^ +\d+ +\d+\.\d+ +)");
    static const std::regex number(R"(^Frame \d+:)");
    static const std::regex ports(R"((Src|Dst) Port: [3-6]\d{4}\b)");
    return std::regex_replace(std::regex_replace(std::regex_replace(line, start, ""), number, "Frame:"),
                              ports, "$1 Port");
}

Lines lasting(Lines lines) {
    for (std::string& line : lines)
        line = lasting(line);
    return lines;
}

/** A notification from a service to a sink. */
void notify() {
    callSink("socket", [](const std::string& address) {
        VornProxyDependent(address, 7).remoteNotify(VornSupport::VornNotification(12));
    });
}

} // namespace

TEST_F(VornnetDissector, Transcripts_AreAsThePageShowsThem) {
    notify();
    talk({"stock\r\n", "+", bytes("00 00 00 05"), bytes("00 01 00 00")}, 5024);
    capture().awaitEnds(4);
    const std::vector<Transcript> shownOnPage = transcripts();
    EXPECT_EQ(shownOnPage.size(), 2U);
    const std::string program = "tshark -r notify.pcap";
    for (const Transcript& transcript : shownOnPage) {
        ASSERT_THAT(transcript.command, testing::StartsWith(program));
        Lines options;
        std::istringstream words(transcript.command.substr(program.size()));
        for (std::string word; words >> word;)
            options.push_back(word);
        EXPECT_EQ(lasting(linesOf(tshark(options))), lasting(transcript.output)) << transcript.command;
    }
}

TEST_F(VornnetDissector, PreferencesOfThePage_AreTheDissectors) {
    const std::regex setting(R"(\n#?(vornnet\.[a-z_]+): ?([^\n]*))");
    std::set<std::string> known;
    const std::string preferences = report("currentprefs");
    for (std::sregex_iterator match(preferences.begin(), preferences.end(), setting), end; match != end;
         ++match)
        known.insert((*match)[1]);
    EXPECT_EQ(known.size(), 9U);
    std::set<std::string> documented;
    const std::string text = page();
    const std::regex row(R"(`(vornnet\.[a-z_]+)`)");
    for (const std::string& line : linesOf(text)) {
        if (line.rfind("| `vornnet.", 0) != 0)
            continue;
        for (std::sregex_iterator match(line.begin(), line.end(), row), end; match != end; ++match)
            documented.insert((*match)[1]);
    }
    EXPECT_EQ(documented, known);
}

TEST_F(VornnetDissector, RemarksOfThePage_AreTheDissectors) {
    std::string known;
    for (const std::string& line : linesOf(report("fields"))) {
        if (line.find("\tvornnet") != std::string::npos)
            known += line + "\n";
    }
    const std::string text = page();
    const std::string list = text.substr(text.find("expert info:"));
    const std::regex name(R"(`(vornnet\.[a-z_]+)` \()");
    int count = 0;
    for (std::sregex_iterator match(list.begin(), list.end(), name), end; match != end; ++match, ++count)
        EXPECT_THAT(known, HasSubstr("\t" + (*match)[1].str() + "\t"));
    EXPECT_EQ(count, 5);
}

#ifdef VORNTEST_INSTALLATION
TEST_F(VornnetDissector, InstalledDissector_IsLoadedFromThePluginDirectory) {
    const std::string directory =
        std::filesystem::temp_directory_path() / ("vornnet-plugin." + std::to_string(::getpid()));
    const std::string plugins = directory + "/.local/lib/wireshark/plugins";
    ChildProcess cmake =
        ChildProcess::spawn({"cmake", "-DCMAKE_INSTALL_COMPONENT=tools",
                             "-DCMAKE_INSTALL_PREFIX=" + directory, "-P", VORNTEST_INSTALLATION});
    const std::string output = cmake.readAllOutput();
    EXPECT_EQ(cmake.wait(), 0) << output << cmake.readAllErrors();
    // An ordinary user's plugins are looked for as those of the system are, below another directory.
    std::filesystem::create_directories(plugins);
    std::filesystem::copy_file(directory + "/" VORNTEST_LIBDIR "/wireshark/plugins/vornnet.lua",
                               plugins + "/vornnet.lua");
    ChildProcess tshark = ChildProcess::spawn({"tshark", "-G", "protocols"}, {"HOME=" + directory});
    EXPECT_THAT(tshark.readAllOutput(std::chrono::seconds(100)), HasSubstr("Vornnet\tVORNNET\tvornnet\n"));
    EXPECT_EQ(tshark.wait(), 0);
    std::filesystem::remove_all(directory);
}
#endif
