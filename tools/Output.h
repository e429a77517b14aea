// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_OUTPUT_H
#define VORNTOOL_OUTPUT_H

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace VornTool {

/** JSON whose members stay in the order in which they were added. */
using Json = nlohmann::ordered_json;

/**
 * What the program writes. Each line leaves with one write(2), so that lines of several threads do not mix
 * and nothing is lost when the process ends at once.
 */
class Output {
public:
    /** Names the subcommand, for error texts. */
    static void setCommand(const std::string& name);

    /** Writes a line to standard output. */
    static void line(const std::string& text);

    /** Writes an object as one line to standard output; bytes that are no UTF-8 are replaced. */
    static void json(const Json& value);

    /** Writes @p object if JSON is wanted, otherwise @p text as a line. */
    static void either(bool wantsJson, const Json& object, const std::string& text);

    /** Writes bytes to standard output as they are. */
    static void bytes(const std::string& data);

    /** Writes "vornnet COMMAND: text" to standard error. */
    static void error(const std::string& text);

    /** Writes a line to standard error. */
    static void diagnostic(const std::string& text);

    /** @return whether standard output has gone away, as with `| head -1`. */
    static bool isLost();

    /** @return @p text in the colour (an SGR number) when standard output is a terminal that wants colours.
     */
    static std::string coloured(const std::string& text, int colour);
};

/** The cells of a line of a table. */
using Row = std::vector<std::string>;

/** Pads the cells, but those of the last column, so that the columns stand below each other. */
void alignColumns(std::vector<Row>& rows);

/** @return the texts with the separator between them. */
std::string joined(const std::vector<std::string>& texts, const std::string& separator);

/** @return a time since 1970 as in "2026-11-22T12:00:00.123Z", with so many digits of the second's part. */
std::string timeText(std::chrono::microseconds time, std::size_t digits);

/** A line on standard error that is rewritten while the program works; nothing where that is no terminal. */
class Progress {
public:
    Progress();
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(const std::string& text);
    void clear();

private:
    bool m_shown;
    bool m_dirty = false;
};

/** @return the text in quotes, with everything escaped that could do harm on a terminal. */
std::string quoted(const std::string& text);

/** @return the text with control characters escaped, without quotes. */
std::string printable(const std::string& text);

} // namespace VornTool

#endif
