// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "Servers.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <utility>

#define NCURSES_NOMACROS
#include <curses.h>
#include <unistd.h>

namespace VornTool {

namespace {

struct TopOptions : CommonOptions {
    double every = 1;
    long count = 0;
};

/** A signal or a key is noticed within this time. */
constexpr std::chrono::milliseconds cLongestPause(50);

/** The terminal while it shows the table; what was there before comes back at the end. */
class Screen {
public:
    Screen() {
        std::setlocale(LC_ALL, "");
        if (::newterm(nullptr, stdout, stdin) == nullptr)
            throw ToolError(exitFailed, "the terminal is of a kind that is not known here");
        ::cbreak();
        ::noecho();
        ::curs_set(0);
    }

    ~Screen() { ::endwin(); }

    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    void show(const std::vector<std::string>& lines);

    /** Waits. @return whether "q" was pressed meanwhile, a signal came, or the terminal is gone */
    bool isEndWanted(std::chrono::milliseconds time, const Interruption& interruption);
};

void Screen::show(const std::vector<std::string>& lines) {
    ::erase();
    for (int row = 0; row < std::min<int>(LINES, static_cast<int>(lines.size())); ++row) {
        if (row == 0)
            ::attron(A_REVERSE);
        ::mvaddnstr(row, 0, lines[static_cast<std::size_t>(row)].c_str(), COLS);
        ::attroff(A_REVERSE);
    }
    ::refresh();
}

bool Screen::isEndWanted(std::chrono::milliseconds time, const Interruption& interruption) {
    const auto end = std::chrono::steady_clock::now() + time;
    ::timeout(static_cast<int>(cLongestPause.count()));
    while (std::chrono::steady_clock::now() < end && !interruption.isRequested()) {
        const int key = ::getch();
        // A terminal that has hung up lets nobody wait.
        if (key == 'q' || key == 'Q' || (key == ERR && ::isatty(STDIN_FILENO) != 1))
            return true;
    }
    return interruption.isRequested();
}

std::string ageText(const std::optional<std::chrono::milliseconds>& age) {
    return age ? durationText(*age) : "-";
}

std::string queueText(const Server& server) {
    if (server.socket.queue)
        return std::to_string(server.socket.queue->waiting) + "/" +
               std::to_string(server.socket.queue->backlog);
    return std::to_string(server.socket.unread) + " B";
}

/** How often the threads of a server's processes wake in a second, from one look to the next. */
class Rates {
public:
    void note(const std::vector<Server>& servers);

    /** @return nothing at the first look. */
    std::optional<double> of(const Server& server) const;

private:
    using Clock = std::chrono::steady_clock;

    std::map<std::string, std::uint64_t> m_wakes; // by address
    std::map<std::string, double> m_rates;
    Clock::time_point m_looked;
};

void Rates::note(const std::vector<Server>& servers) {
    const Clock::time_point now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - m_looked).count();
    std::map<std::string, std::uint64_t> wakes;
    m_rates.clear();
    for (const Server& server : servers) {
        const auto before = m_wakes.find(server.address);
        // Fewer than before are another process's.
        if (before != m_wakes.end() && server.wakes >= before->second)
            m_rates[server.address] = static_cast<double>(server.wakes - before->second) / seconds;
        wakes[server.address] = server.wakes;
    }
    m_wakes = std::move(wakes);
    m_looked = now;
}

std::optional<double> Rates::of(const Server& server) const {
    const auto found = m_rates.find(server.address);
    return found == m_rates.end() ? std::nullopt : std::optional<double>(found->second);
}

std::string rateText(std::optional<double> rate) {
    if (!rate)
        return "-";
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%.0f", *rate);
    return text.data();
}

void addClients(const std::vector<Client>& clients, const std::string& state, std::vector<Row>& rows) {
    for (const Client& client : clients)
        rows.push_back(
            {"  client", state, "", ageText(client.since), "", "", printable(describeWho(client))});
}

std::vector<Row> rowsOf(const std::vector<Server>& servers, const Rates& rates) {
    std::vector<Row> rows = {{"ADDRESS", "STATE", "QUEUE", "SINCE", "WAKES/S", "TYPE", "PROCESS"}};
    for (const Server& server : servers) {
        rows.push_back({printable(server.address), nameOf(server.activity), queueText(server),
                        ageText(server.since), rateText(rates.of(server)), nameOf(server.type),
                        printable(describeFully(server.processes))});
        addClients(server.waiting, "waits", rows);
        addClients(server.served, "served", rows);
    }
    return rows;
}

std::vector<std::string> linesOf(std::vector<Row> rows) {
    alignColumns(rows);
    std::vector<std::string> lines;
    for (const Row& row : rows)
        lines.push_back(joined(row, "  "));
    return lines;
}

Json toJson(const Client& client) {
    Json object = {{"processes", toJson(client.processes)}, {"place", client.place}};
    if (client.since)
        object["seconds"] = std::chrono::duration<double>(*client.since).count();
    return object;
}

Json toJson(const Server& server, const Rates& rates) {
    Json object = {{"address", server.address},        {"type", nameOf(server.type)},
                   {"state", nameOf(server.activity)}, {"processes", toJson(server.processes)},
                   {"waiting", Json::array()},         {"served", Json::array()}};
    if (server.since)
        object["seconds"] = std::chrono::duration<double>(*server.since).count();
    if (const auto rate = rates.of(server))
        object["wakes_per_second"] = *rate;
    if (server.socket.queue)
        object["backlog"] = server.socket.queue->backlog;
    else
        object["unread_bytes"] = server.socket.unread;
    for (const Client& client : server.waiting)
        object["waiting"].push_back(toJson(client));
    for (const Client& client : server.served)
        object["served"].push_back(toJson(client));
    return object;
}

void print(const TopOptions& options, const std::vector<Server>& servers, const Rates& rates) {
    if (options.json) {
        Json list = Json::array();
        for (const Server& server : servers)
            list.push_back(toJson(server, rates));
        Output::json({{"servers", list}});
        return;
    }
    for (const std::string& line : linesOf(rowsOf(servers, rates)))
        Output::line(line.substr(0, line.find_last_not_of(' ') + 1));
}

/** Prints the table as often as was asked for. */
int printAgain(const TopOptions& options, std::chrono::milliseconds pause) {
    Interruption interruption(std::chrono::milliseconds(500));
    Rates rates;
    for (long i = 0; i < std::max(options.count, 1L); ++i) {
        if (i > 0 && !interruption.sleepFor(pause))
            break;
        const std::vector<Server> servers = listServers();
        rates.note(servers);
        print(options, servers, rates);
    }
    return interruption.status();
}

/** Shows it on the terminal until somebody has enough. */
int showUntilEnd(const TopOptions& options, std::chrono::milliseconds pause) {
    const Interruption interruption(std::chrono::seconds(2)); // so that the terminal gets back what it had
    Screen screen;
    Rates rates;
    for (long i = 0; options.count == 0 || i < options.count; ++i) {
        const std::vector<Server> servers = listServers();
        rates.note(servers);
        screen.show(linesOf(rowsOf(servers, rates)));
        if (screen.isEndWanted(pause, interruption))
            break;
    }
    return interruption.status();
}

int runTop(TopOptions& options) {
    const LibraryRecords records(options.logLevel);
    const std::chrono::milliseconds pause(static_cast<long>(options.every * 1000));
    const bool isTerminal = ::isatty(STDOUT_FILENO) == 1 && ::isatty(STDIN_FILENO) == 1;
    return isTerminal && !options.json ? showUntilEnd(options, pause) : printAgain(options, pause);
}

} // namespace

void addTop(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<TopOptions>();
    CLI::App* command = addCommand(
        app, "top", "Show the sinks and services of this host with their queues and clients", *options);
    command->add_option("--every", options->every, "Look again every SECONDS (1)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.1, 3600.0));
    command->add_option("--count", options->count, "End after N looks; where this is no terminal, after one")
        ->type_name("N")
        ->check(CLI::Range(1L, 1000000000L));
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runTop);
}

} // namespace VornTool
