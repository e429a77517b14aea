// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AbiTable.h"

#include <cstring>
#include <functional>

#include <gtest/gtest.h>

namespace VornAbi {

#define METHOD(class_, returns_, operation_, arguments_)                                                     \
    ABI_REVEAL(FunctionRow, returns_(class_::*) arguments_, &class_::operation_)
#define STATIC(class_, returns_, operation_, arguments_)                                                     \
    ABI_REVEAL(FunctionRow, returns_(*) arguments_, &class_::operation_)
#define FREE(returns_, function_, arguments_) ABI_REVEAL(FunctionRow, returns_(*) arguments_, &function_)
#define VARIABLE(class_, type_, variable_) ABI_REVEAL(FunctionRow, type_*, &class_::variable_)
#include "Functions.inc"
#undef METHOD
#undef STATIC
#undef FREE
#undef VARIABLE

namespace {

struct Function {
    std::string name;     // with its arguments, as in the table
    std::string exported; // what the library exports at the address that programs call
};

/** The exported name of what a pointer, also one to an operation of a class, points to. */
template <typename Pointer>
std::string exportedNameOf(Pointer pointer, const std::string& expected) {
    const void* address = nullptr;
    static_assert(sizeof(address) <= sizeof(pointer));
    std::memcpy(&address, &pointer, sizeof(address));
    std::string found = "(nothing)";
    for (const std::string& name : exportedNames(address)) {
        found = readable(name.c_str());
        if (found == expected) {
            break;
        }
    }
    return found;
}

TEST(Functions, TheLibraryExportsEveryFunctionOfTheTable) {
    const Function functions[] = {
#define ROW(name_) {name_, exportedNameOf(revealed(ABI_ROW(FunctionRow)()), name_)},
#define METHOD(class_, returns_, operation_, arguments_) ROW(#class_ "::" #operation_ #arguments_)
#define STATIC METHOD
#define FREE(returns_, function_, arguments_) ROW(#function_ #arguments_)
#define VARIABLE(class_, type_, variable_) ROW(#class_ "::" #variable_)
#include "Functions.inc"
#undef ROW
#undef METHOD
#undef STATIC
#undef FREE
#undef VARIABLE
    };
    for (const Function& function : functions) {
        EXPECT_EQ(function.exported, function.name);
    }
}

} // namespace
} // namespace VornAbi
