// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Values.h"

#include "ExitStatus.h"

#include <VornBufferConnection.h>
#include <VornException.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>

namespace VornTool {

using VornNet::VornBufferConnection;
using VornNet::VornConnection;

const char* const valueHelp = "Values: int:N short:N long:N bool:true|false string:TEXT line:TEXT ack error";
const char* const typesHelp = "Types, separated by commas: int short long bool string line ack";

namespace {

constexpr std::size_t cLongestText = std::size_t{16} << 20;

/** A type, by its name, and which numbers it can carry. */
struct TypeEntry {
    const char* name;
    ValueType type;
    long lowest = 0;
    long highest = 0;
};

constexpr std::array cTypes = {
    TypeEntry{"int", ValueType::Int, INT_MIN, INT_MAX},
    TypeEntry{"short", ValueType::Short, SHRT_MIN, SHRT_MAX},
    // The wire carries 32 bits of a long, and a larger one would arrive as another number.
    TypeEntry{"long", ValueType::Long, INT_MIN, UINT_MAX}, TypeEntry{"bool", ValueType::Bool},
    TypeEntry{"string", ValueType::String}, TypeEntry{"line", ValueType::Line},
    TypeEntry{"ack", ValueType::Token}};

[[noreturn]] void refuse(const std::string& text) {
    throw ToolError(exitUsage, text);
}

const TypeEntry& parseType(const std::string& name) {
    const auto* found =
        std::find_if(cTypes.begin(), cTypes.end(), [&](const TypeEntry& type) { return name == type.name; });
    if (found == cTypes.end())
        refuse("unknown type " + quoted(name) + "; " + typesHelp);
    return *found;
}

long parseNumber(const std::string& text, const std::string& digits, const TypeEntry& type) {
    long number = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    if (error != std::errc() || stop != end || number < type.lowest || number > type.highest)
        refuse(quoted(text) + ": a number from " + std::to_string(type.lowest) + " to " +
               std::to_string(type.highest) + " is needed");
    return number;
}

long parseBool(const std::string& text, const std::string& word) {
    if (word == "true" || word == "1")
        return 1;
    if (word == "false" || word == "0")
        return 0;
    refuse(quoted(text) + ": true or false is needed");
}

std::string parseLine(const std::string& text, const std::string& line) {
    if (line.find_first_of("\r\n") != std::string::npos)
        refuse(quoted(text) + ": a line has no line end within");
    return line;
}

/** Reads with the exact-length operation, so that zero bytes within a text are kept. */
std::string receiveText(VornConnection& connection) {
    const int length = connection.receiveInt();
    if (length < 0 || static_cast<std::size_t>(length) > cLongestText)
        throw ToolError(exitFailed, "a string of length " + std::to_string(length) + " was announced");
    std::string text(static_cast<std::size_t>(length), '\0');
    if (length > 0)
        connection.get(text.data(), length);
    return text;
}

std::string receiveLine(VornConnection& connection) {
    constexpr std::size_t cLongestLine = 65536;
    std::string line;
    // One byte at a time: what follows the line belongs to the next value.
    while (line.size() < 2 || line.compare(line.size() - 2, 2, "\r\n") != 0) {
        if (line.size() > cLongestLine)
            throw ToolError(exitFailed, "a line without an end was received");
        char character = 0;
        connection.get(&character, 1);
        line += character;
    }
    line.resize(line.size() - 2);
    return line;
}

long receiveToken(VornConnection& connection) {
    const short first = connection.receiveShort();
    const short second = connection.receiveShort();
    if (first != 1 || (second != 0 && second != -1))
        throw ToolError(exitFailed, "the shorts " + std::to_string(first) + " and " + std::to_string(second) +
                                        " are neither an acknowledgement nor an error");
    return second;
}

bool isUtf8(const std::string& text) {
    try {
        static_cast<void>(Json(text).dump());
        return true;
    } catch (const Json::type_error&) {
        return false;
    }
}

} // namespace

Value parseValue(const std::string& text) {
    if (text == "ack" || text == "error")
        return {ValueType::Token, text == "ack" ? 0 : -1, {}};
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos || text.substr(0, colon) == "ack")
        refuse(quoted(text) + " is no value. " + valueHelp);
    const std::string rest = text.substr(colon + 1);
    const TypeEntry& entry = parseType(text.substr(0, colon));
    switch (entry.type) {
    case ValueType::Bool:
        return {entry.type, parseBool(text, rest), {}};
    case ValueType::Line:
        return {entry.type, 0, parseLine(text, rest)};
    case ValueType::String:
        return {entry.type, 0, rest};
    default:
        return {entry.type, parseNumber(text, rest, entry), {}};
    }
}

std::vector<Value> parseValues(const std::vector<std::string>& texts) {
    std::vector<Value> values;
    std::transform(texts.begin(), texts.end(), std::back_inserter(values), parseValue);
    return values;
}

std::vector<ValueType> parseTypes(const std::string& text) {
    std::vector<ValueType> types;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        types.push_back(parseType(text.substr(start, comma - start)).type);
        start = comma + 1;
        if (start == text.size())
            refuse("a type is missing at the end of " + quoted(text));
    }
    return types;
}

void sendValue(VornConnection& connection, const Value& value) {
    switch (value.type) {
    case ValueType::Int:
        return connection.transfer(static_cast<int>(value.number));
    case ValueType::Short:
        return connection.transfer(static_cast<short>(value.number));
    case ValueType::Long:
        return connection.transfer(value.number);
    case ValueType::Bool:
        return connection.transfer(value.number != 0);
    case ValueType::String:
        return connection.transfer(value.text);
    case ValueType::Token:
        return value.number == 0 ? connection.transferACK() : connection.transferError();
    case ValueType::Line:
        break;
    }
    std::string line = value.text + "\r\n";
    connection.establish();
    connection.put(line.data(), static_cast<int>(line.size()));
}

Value receiveValue(VornConnection& connection, ValueType type) {
    switch (type) {
    case ValueType::Int:
        return {type, connection.receiveInt(), {}};
    case ValueType::Short:
        return {type, connection.receiveShort(), {}};
    case ValueType::Long:
        return {type, connection.receiveLong(), {}};
    case ValueType::Bool:
        return {type, connection.receiveShort() != 0 ? 1 : 0, {}};
    case ValueType::String:
        return {type, 0, receiveText(connection)};
    case ValueType::Token:
        return {type, receiveToken(connection), {}};
    case ValueType::Line:
        break;
    }
    return {type, 0, receiveLine(connection)};
}

std::string encoded(const Value& value) {
    VornBufferConnection buffer;
    sendValue(buffer, value);
    return {static_cast<const char*>(buffer.buf()), static_cast<std::size_t>(buffer.size())};
}

std::string describe(const Value& value) {
    switch (value.type) {
    case ValueType::Token:
        return value.number == 0 ? "ack" : "error";
    case ValueType::Bool:
        return value.number != 0 ? "bool true" : "bool false";
    case ValueType::String:
    case ValueType::Line:
        return nameOf(value.type) + " " + quoted(value.text);
    default:
        return nameOf(value.type) + " " + std::to_string(value.number);
    }
}

std::string describe(const std::vector<Value>& values) {
    std::string result;
    for (const Value& value : values)
        result += (result.empty() ? "" : ", ") + describe(value);
    return result;
}

Content receiveContent(VornConnection& connection, const std::vector<ValueType>& types) {
    Content content;
    try {
        for (const ValueType type : types)
            content.values.push_back(receiveValue(connection, type));
    } catch (const VornSupport::VornException& error) {
        content.failure = describeFailure(error.getCode(), error.getText());
    } catch (const ToolError& error) {
        content.failure = error.what();
    }
    std::array<char, 4096> buffer;
    long error = 0;
    for (long count = 1; count > 0; content.rest += std::max(count, 0L))
        count = connection.receive(buffer.data(), static_cast<long>(buffer.size()), &error, false);
    return content;
}

std::string describe(const Content& content, const std::string& before) {
    std::string text = content.values.empty() ? "" : before + describe(content.values);
    if (!content.failure.empty())
        text += ", incomplete: " + content.failure;
    if (content.rest > 0)
        text += ", " + std::to_string(content.rest) + " more bytes";
    return text;
}

void addTo(Json& object, const Content& content) {
    object["values"] = toJson(content.values);
    object["unread_bytes"] = content.rest;
    if (!content.failure.empty())
        object["error"] = content.failure;
}

std::string nameOf(ValueType type) {
    return std::find_if(cTypes.begin(), cTypes.end(),
                        [&](const TypeEntry& entry) { return type == entry.type; })
        ->name;
}

Json toJson(const Value& value) {
    Json result = {{"type", nameOf(value.type)}};
    switch (value.type) {
    case ValueType::Token:
        result["value"] = value.number == 0 ? "ack" : "error";
        break;
    case ValueType::Bool:
        result["value"] = value.number != 0;
        break;
    case ValueType::String:
    case ValueType::Line:
        result["value"] = value.text;
        if (!isUtf8(value.text))
            result["hex"] = hexText(value.text);
        break;
    default:
        result["value"] = value.number;
    }
    return result;
}

Json toJson(const std::vector<Value>& values) {
    Json result = Json::array();
    for (const Value& value : values)
        result.push_back(toJson(value));
    return result;
}

std::string hexText(const std::string& data) {
    constexpr const char* cDigits = "0123456789abcdef";
    std::string result;
    for (const char character : data) {
        const auto code = static_cast<unsigned char>(character);
        if (!result.empty())
            result += ' ';
        result += cDigits[code >> 4U];
        result += cDigits[code & 15U];
    }
    return result;
}

} // namespace VornTool
