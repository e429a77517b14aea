// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Output.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <unistd.h>

namespace VornTool {

namespace {

std::string g_command;
std::atomic<bool> g_lost{false};

bool writeAll(int fd, const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t count = ::write(fd, data.data() + done, data.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

bool wantsColours() {
    const char* terminal = std::getenv("TERM");
    const char* refusal = std::getenv("NO_COLOR");
    return ::isatty(STDOUT_FILENO) == 1 && (refusal == nullptr || *refusal == '\0') && terminal != nullptr &&
           std::string(terminal) != "dumb";
}

/** @return the length of the UTF-8 character that begins with this byte, 0 if none does. */
std::size_t lengthByFirst(unsigned char first) {
    // C0 and C1 would begin overlong forms.
    if (first < 0xC2 || first > 0xF4)
        return first < 0x80 ? 1 : 0;
    return first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
}

/** @return the length of the UTF-8 character at @p position that a terminal shows, 0 if there is none. */
std::size_t characterLength(const std::string& text, std::size_t position) {
    const std::string character =
        text.substr(position, lengthByFirst(static_cast<unsigned char>(text[position])));
    if (character.size() <= 1)
        return !character.empty() && character[0] >= 0x20 && character[0] != 0x7F ? 1 : 0;
    const bool isWhole = character.size() == lengthByFirst(static_cast<unsigned char>(character[0])) &&
                         std::all_of(character.begin() + 1, character.end(), [](char part) {
                             return (static_cast<unsigned char>(part) & 0xC0U) == 0x80U;
                         });
    // C2 80 to C2 9F are control characters again.
    const bool isControl = character[0] == '\xC2' && static_cast<unsigned char>(character[1]) < 0xA0;
    return isWhole && !isControl ? character.size() : 0;
}

std::string escaped(const std::string& text, bool withQuotes) {
    std::string result;
    for (std::size_t position = 0; position < text.size();) {
        const char character = text[position];
        const std::size_t length = characterLength(text, position);
        if (length == 0) {
            std::array<char, 8> buffer;
            std::snprintf(buffer.data(), buffer.size(), "\\x%02x", static_cast<unsigned char>(character));
            result += buffer.data();
        } else if (withQuotes && (character == '\\' || character == '"')) {
            result += '\\';
            result += character;
        } else {
            result += text.substr(position, length);
        }
        position += std::max<std::size_t>(length, 1);
    }
    return result;
}

} // namespace

void Output::setCommand(const std::string& name) {
    g_command = name;
}

void Output::line(const std::string& text) {
    bytes(text + "\n");
}

void Output::json(const Json& value) {
    line(value.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void Output::either(bool wantsJson, const Json& object, const std::string& text) {
    if (wantsJson)
        json(object);
    else
        line(text);
}

void Output::bytes(const std::string& data) {
    if (!writeAll(STDOUT_FILENO, data))
        g_lost = true;
}

void Output::error(const std::string& text) {
    diagnostic((g_command.empty() ? "vornnet: " : "vornnet " + g_command + ": ") + text);
}

void Output::diagnostic(const std::string& text) {
    writeAll(STDERR_FILENO, text + "\n");
}

bool Output::isLost() {
    return g_lost;
}

std::string Output::coloured(const std::string& text, int colour) {
    static const bool wanted = wantsColours();
    return wanted ? "\033[" + std::to_string(colour) + "m" + text + "\033[0m" : text;
}

void alignColumns(std::vector<Row>& rows) {
    for (std::size_t column = 0; column + 1 < rows.front().size(); ++column) {
        std::size_t width = 0;
        for (const Row& row : rows)
            width = std::max(width, row[column].size());
        for (Row& row : rows)
            row[column].resize(width, ' ');
    }
}

std::string joined(const std::vector<std::string>& texts, const std::string& separator) {
    std::string result;
    for (const std::string& text : texts)
        result += (&text == &texts.front() ? "" : separator) + text;
    return result;
}

std::string timeText(std::chrono::microseconds time, std::size_t digits) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    const std::time_t seconds = whole.count();
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 48> text;
    const std::size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S.", &parts);
    std::snprintf(text.data() + size, text.size() - size, "%06d", static_cast<int>((time - whole).count()));
    return std::string(text.data(), size + digits) + "Z";
}

Progress::Progress() : m_shown(::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    clear();
}

void Progress::update(const std::string& text) {
    if (!m_shown)
        return;
    writeAll(STDERR_FILENO, "\r\033[K" + text);
    m_dirty = true;
}

void Progress::clear() {
    if (m_dirty)
        writeAll(STDERR_FILENO, "\r\033[K");
    m_dirty = false;
}

std::string quoted(const std::string& text) {
    return "\"" + escaped(text, true) + "\"";
}

std::string printable(const std::string& text) {
    return escaped(text, false);
}

} // namespace VornTool
