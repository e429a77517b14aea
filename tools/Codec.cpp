// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "ExitStatus.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "Values.h"

#include <VornBufferConnection.h>
#include <VornException.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

namespace VornTool {

using VornNet::VornBufferConnection;
using VornSupport::VornException;

namespace {

struct EncodeOptions : CommonOptions {
    std::vector<std::string> values;
    bool raw = false;
};

struct DecodeOptions : CommonOptions {
    std::string types;
    std::string file = "-";
    bool hex = false;
};

/** A value, or a rest that is none, with its bytes. */
struct Piece {
    std::string bytes;
    std::string meaning;
};

void printView(const std::vector<Piece>& pieces) {
    constexpr std::size_t cBytesPerLine = 8;
    constexpr std::size_t cWidth = cBytesPerLine * 3 - 1;
    for (const Piece& piece : pieces) {
        for (std::size_t start = 0; start == 0 || start < piece.bytes.size(); start += cBytesPerLine) {
            std::string line = hexText(piece.bytes.substr(start, cBytesPerLine));
            if (start == 0) {
                line.resize(cWidth + 2, ' ');
                line += piece.meaning;
            }
            Output::line(line);
        }
    }
}

int runEncode(EncodeOptions& options) {
    const std::vector<Value> values = parseValues(options.values);
    const LibraryRecords records(options.logLevel);
    std::vector<Piece> pieces;
    std::string all;
    for (const Value& value : values) {
        pieces.push_back({encoded(value), describe(value)});
        all += pieces.back().bytes;
    }
    if (options.raw)
        Output::bytes(all);
    else if (options.json)
        Output::json({{"bytes", all.size()}, {"hex", hexText(all)}, {"values", toJson(values)}});
    else
        printView(pieces);
    return exitDone;
}

/** @return what is in the file; of "-" in standard input. */
std::string contentOf(const std::string& name) {
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(
        name == "-" ? stdin : std::fopen(name.c_str(), "rbe"), &std::fclose);
    if (file == nullptr)
        throw ToolError(exitFailed, "cannot open " + quoted(name) + ": " + std::strerror(errno));
    std::string data;
    std::array<char, 65536> buffer;
    while (const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), file.get())) {
        data.append(buffer.data(), count);
        if (data.size() > static_cast<std::size_t>(INT_MAX))
            throw ToolError(exitFailed, "the input is longer than a message can be");
    }
    if (std::ferror(file.get()) != 0)
        throw ToolError(exitFailed, std::string("cannot read: ") + std::strerror(errno));
    return data;
}

/** Adds the bytes of a text such as "00 0a" or "000a". */
void appendHex(const std::string& text, std::string& data) {
    const char* const end = text.data() + text.size();
    for (const char* at = text.data(); at != end;) {
        if (*at == ' ') {
            ++at;
            continue;
        }
        unsigned char byte = 0;
        const char* const stop = std::from_chars(at, std::min(at + 2, end), byte, 16).ptr;
        if (stop == end && stop - at == 1)
            throw ToolError(exitFailed, quoted(text) + " ends with half a byte");
        if (stop - at != 2)
            throw ToolError(exitFailed, quoted(text) + " are no pairs of hex digits");
        data += static_cast<char>(byte);
        at = stop;
    }
}

/** Takes the digits up to two blanks of each line, so that the hex view can be read as well. */
std::string parseHex(const std::string& text) {
    std::string data;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        appendHex(line.substr(0, line.find("  ")), data);
    return data;
}

/** What became of the bytes. */
struct Decoding {
    std::vector<Value> values;
    std::vector<Piece> pieces;
    std::string rest;
    std::string error;
};

Decoding decode(std::string& data, const std::vector<ValueType>& types) {
    Decoding decoding;
    std::size_t position = 0;
    if (!data.empty() || !types.empty()) {
        VornBufferConnection buffer(data.data(), static_cast<int>(data.size()), "");
        try {
            for (const ValueType type : types) {
                decoding.values.push_back(receiveValue(buffer, type));
                const std::size_t size = encoded(decoding.values.back()).size();
                decoding.pieces.push_back({data.substr(position, size), describe(decoding.values.back())});
                position += size;
            }
        } catch (const VornException&) {
            const std::size_t index = decoding.values.size();
            decoding.error =
                "the bytes end within value " + std::to_string(index + 1) + " (" + nameOf(types[index]) + ")";
        } catch (const ToolError& error) {
            decoding.error = error.what();
        }
    }
    decoding.rest = data.substr(std::min(position, data.size()));
    if (decoding.error.empty() && !decoding.rest.empty())
        decoding.error = std::to_string(decoding.rest.size()) + " bytes are left";
    return decoding;
}

int runDecode(DecodeOptions& options) {
    const std::vector<ValueType> types = parseTypes(options.types);
    const LibraryRecords records(options.logLevel);
    std::string data = contentOf(options.file);
    if (options.hex)
        data = parseHex(data);
    Decoding decoding = decode(data, types);
    if (options.json) {
        Json object = {{"bytes", data.size()},
                       {"hex", hexText(data)},
                       {"values", toJson(decoding.values)},
                       {"rest", hexText(decoding.rest)}};
        if (!decoding.error.empty())
            object["error"] = decoding.error;
        Output::json(object);
    } else {
        if (!decoding.rest.empty())
            decoding.pieces.push_back({decoding.rest, "rest"});
        printView(decoding.pieces);
    }
    if (decoding.error.empty())
        return exitDone;
    Output::error(decoding.error);
    return exitIncomplete;
}

} // namespace

void addEncode(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<EncodeOptions>();
    CLI::App* command = addCommand(app, "encode", "Show the bytes of values", *options);
    command->add_option("VALUE", options->values, valueHelp)->required();
    CLI::Option* raw = command->add_flag("--raw", options->raw, "Write the bytes themselves");
    addJsonOption(*command, *options);
    command->get_option("--json")->excludes(raw);
    setRunner(command, runner, options, runEncode);
}

void addDecode(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<DecodeOptions>();
    CLI::App* command = addCommand(app, "decode", "Show the values of bytes", *options);
    command->add_option("FILE", options->file, "File with the bytes; - for standard input, also by default");
    command->add_option("--types", options->types, typesHelp)->required()->type_name("TYPES");
    command->add_flag("--hex", options->hex, "The file has hex digits, such as encode prints them");
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runDecode);
}

} // namespace VornTool
