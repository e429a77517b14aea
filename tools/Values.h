// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_VALUES_H
#define VORNTOOL_VALUES_H

#include "Output.h"

#include <VornConnection.h>

#include <string>
#include <vector>

namespace VornTool {

/** What can be written to and read from a connection. */
enum class ValueType { Int, Short, Long, Bool, String, Line, Token };

/** One value, as given by the operator or as received. */
struct Value {
    ValueType type = ValueType::Int;
    long number = 0;  ///< for numbers and bools; of a token: 0 for "ack", -1 for "error"
    std::string text; ///< for strings and lines
};

/** What the texts of values and types may be, for help texts. */
extern const char* const valueHelp;
extern const char* const typesHelp;

/** @return the value of a text such as "int:5". @throws ToolError (usage) */
Value parseValue(const std::string& text);

/** @return the values of several texts. @throws ToolError (usage) */
std::vector<Value> parseValues(const std::vector<std::string>& texts);

/** @return the types of a text such as "int,string"; none for an empty one. @throws ToolError (usage) */
std::vector<ValueType> parseTypes(const std::string& text);

/** Writes a value with the connection's typed operations. */
void sendValue(VornNet::VornConnection& connection, const Value& value);

/** Reads a value. @throws VornException for too few bytes, ToolError for a length that cannot be meant */
Value receiveValue(VornNet::VornConnection& connection, ValueType type);

/** @return the bytes of the value on the wire. */
std::string encoded(const Value& value);

/** @return "int 5", "string \"text\"", "ack". */
std::string describe(const Value& value);

/** @return the descriptions of the values, joined. */
std::string describe(const std::vector<Value>& values);

/** What was read of a notification or an event. */
struct Content {
    std::vector<Value> values;
    std::string failure; ///< why the next value could not be read; empty when all could
    long rest = 0;       ///< how many bytes came after them
};

/** Reads values of these types, and whatever follows to the end; nothing leaves it. */
Content receiveContent(VornNet::VornConnection& connection, const std::vector<ValueType>& types);

/** @return the values after @p before, the failure and the number of bytes left, where there are any. */
std::string describe(const Content& content, const std::string& before);

/** Adds "values" and "unread_bytes", and "error" where there is one. */
void addTo(Json& object, const Content& content);

/** @return the name of the type as in a list of types. */
std::string nameOf(ValueType type);

/** @return an object with the type and the value; a text that is no UTF-8 comes as "hex" as well. */
Json toJson(const Value& value);
Json toJson(const std::vector<Value>& values);

/** @return the bytes as lower case hex pairs with blanks between. */
std::string hexText(const std::string& data);

} // namespace VornTool

#endif
