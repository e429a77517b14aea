// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AbiTable.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace VornAbi {

#define CONSTRUCTOR(class_, arguments_)
#define DESTRUCTOR(class_)
#define METHOD(class_, returns_, operation_, arguments_)                                                     \
    ABI_REVEAL(FunctionRow, returns_(class_::*) arguments_, &class_::operation_)
#define STATIC(class_, returns_, operation_, arguments_)                                                     \
    ABI_REVEAL(FunctionRow, returns_(*) arguments_, &class_::operation_)
#define FREE(returns_, function_, arguments_) ABI_REVEAL(FunctionRow, returns_(*) arguments_, &function_)
#define VARIABLE(class_, type_, variable_) ABI_REVEAL(FunctionRow, type_*, &class_::variable_)
#include "Functions.inc"

namespace {

#ifdef VORNTEST_EXACT_EXPORTS

/** Whether one of the class's bases does not stand at its beginning. */
bool hasFurtherBase(const ClassRow& row) {
    return row.bases.size() > 1 ||
           (row.bases.size() == 1 && hasFurtherBase(classRow(row.bases.front().name)));
}

void addTypes(std::set<std::string>& names) {
    for (const ClassRow& row : classTable()) {
        if (row.mangledName.empty())
            continue;
        const std::string destructor = row.name + "::~" + row.name + "()";
        names.insert({"vtable for " + row.name, "typeinfo for " + row.name, "typeinfo name for " + row.name,
                      destructor});
        if (hasFurtherBase(row))
            names.insert("non-virtual thunk to " + destructor);
    }
}

/** The pointers that the networking library instantiates for all programs. */
void addSmartPointers(std::set<std::string>& names) {
    for (const ClassRow& row : classTable()) {
        if (row.name.rfind("VornSmartPointer<", 0) != 0)
            continue;
        const std::string target =
            row.name.substr(row.name.find('<') + 1, row.name.size() - row.name.find('<') - 2);
        for (const std::string& member :
             {std::string("VornSmartPointer()"), "VornSmartPointer(" + target + "*)",
              "VornSmartPointer(" + row.name + " const&)", std::string("~VornSmartPointer()"),
              std::string("getOwnership()"), "operator " + target + "*() const",
              std::string("operator*() const"), std::string("operator*()"), std::string("operator->() const"),
              std::string("operator->()"), "operator<(" + row.name + " const&) const",
              "operator==(" + row.name + " const&) const", "operator=(" + target + "*)",
              "operator=(" + row.name + " const&)"}) {
            names.insert(row.name + "::" + member);
        }
    }
}

void addOperations(std::set<std::string>& names) {
#    define CONSTRUCTOR(class_, arguments_) names.insert(#    class_ "::" #    class_ #    arguments_);
#    define DESTRUCTOR(class_) names.insert(#    class_ "::~" #    class_ "()");
#    define METHOD(class_, returns_, operation_, arguments_)                                                 \
        names.insert(#class_ "::" #operation_ #arguments_);
#    define STATIC METHOD
#    define SLOT(class_, slot_, returns_, operation_, arguments_)                                            \
        names.insert(#class_ "::" #operation_ #arguments_);
#    define PURE(class_, slot_, returns_, operation_, arguments_)
#    define INLINE PURE
#    define FREE(returns_, function_, arguments_) names.insert(#    function_ #    arguments_);
#    define VARIABLE(class_, type_, variable_) names.insert(#    class_ "::" #    variable_);
#    include "Functions.inc"
#    include "VirtualSlots.inc"
}

/** What the networking library takes from the support library of its own version; no part of the interface.
 */
void addPrivate(std::set<std::string>& names) {
    names.insert({"ForkHandlers::ForkHandlers(void (*)(), void (*)(), void (*)(), ForkHandlers::Order)",
                  "ForkHandlers::~ForkHandlers()"});
}

TEST(Functions, TheLibrariesExportNothingBesidesTheTables) {
    std::set<std::string> expected;
    addTypes(expected);
    addSmartPointers(expected);
    addOperations(expected);
    addPrivate(expected);
    const std::set<std::string> found = allExportedNames();
    for (const std::string& name : found)
        EXPECT_EQ(expected.count(name), 1U) << name << " is exported and stands in no table";
    for (const std::string& name : expected)
        EXPECT_EQ(found.count(name), 1U) << name << " is gone: programs that call it need another soname";
}

#endif

} // namespace
} // namespace VornAbi
