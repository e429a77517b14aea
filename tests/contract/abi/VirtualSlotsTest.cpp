// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AbiTable.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <typeinfo>

#include <dlfcn.h>
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>

namespace VornAbi {

#define SLOT(class_, slot_, returns_, operation_, arguments_)                                                \
    ABI_REVEAL(SlotRow, returns_(class_::*) arguments_, &class_::operation_)
#define PURE SLOT
#define INLINE SLOT
#include "VirtualSlots.inc"

namespace {

const char* const c_sPure = "(left to derived classes)";
const char* const c_sInline = "(defined in the header)";

/** A row of the table. */
struct Slot {
    std::string className;
    std::size_t slot;           // as in the table
    std::size_t compiledSlot;   // where programs look for the operation
    std::string operation;      // with its arguments
    std::string implementation; // what the library's table of the class is to hold
};

/** The slot through which a program calls the operation. */
template <typename Operation>
std::size_t slotOf(Operation operation) {
    // A pointer to a virtual operation is one more than the place of its slot in bytes, and an adjustment.
    struct {
        std::uintptr_t place;
        std::ptrdiff_t adjustment;
    } words{};

    static_assert(sizeof(words) == sizeof(operation));
    std::memcpy(&words, &operation, sizeof(words));
    return words.place % 2 == 1 ? (words.place - 1) / sizeof(void*) : SIZE_MAX;
}

std::vector<Slot> slotsOf(const std::string& className) {
    static const std::vector<Slot> slots = {
#define ROW(class_, slot_, operation_, arguments_, implementation_)                                          \
    {classRow(#class_).name, slot_, slotOf(revealed(ABI_ROW(SlotRow)())), #operation_ #arguments_,           \
     implementation_},
#define SLOT(class_, slot_, returns_, operation_, arguments_)                                                \
    ROW(class_, slot_, operation_, arguments_, #class_ "::" #operation_ #arguments_)
#define PURE(class_, slot_, returns_, operation_, arguments_)                                                \
    ROW(class_, slot_, operation_, arguments_, c_sPure)
#define INLINE(class_, slot_, returns_, operation_, arguments_)                                              \
    ROW(class_, slot_, operation_, arguments_, c_sInline)
#include "VirtualSlots.inc"
#undef ROW
    };
    std::vector<Slot> found;
    std::copy_if(slots.begin(), slots.end(), std::back_inserter(found),
                 [&](const Slot& slot) { return slot.className == className; });
    return found;
}

/** The operations behind one of an object's table pointers. */
struct Group {
    std::ptrdiff_t offset; // of that pointer in the object
    std::vector<std::string> slots;
};

void renameDestructors(Group& group, const std::string& className) {
    const std::string name =
        (group.offset == 0 ? "" : "non-virtual thunk to ") + className + "::~" + className + "()";
    group.slots[0] = name + " of the object";
    group.slots[1] = name + " and its memory";
}

/** What the tables say of a class: its own rows on top of what its bases have. */
std::vector<Group> expectedGroups(const ClassRow& row) {
    std::vector<Group> groups;
    for (const Base& base : row.bases) {
        for (Group group : expectedGroups(classRow(base.name))) {
            group.offset += base.offset;
            groups.push_back(group);
        }
    }
    if (groups.empty())
        groups.push_back({0, {"", ""}});
    for (Group& group : groups)
        renameDestructors(group, row.name);
    auto& own = groups.front().slots;
    for (const Slot& slot : slotsOf(row.name)) {
        own.resize(std::max(own.size(), slot.slot + 1), "(no row)");
        own[slot.slot] = slot.implementation;
    }
    return groups;
}

bool isAbstract(const std::vector<Group>& groups) {
    const auto& slots = groups.front().slots;
    return std::find(slots.begin(), slots.end(), c_sPure) != slots.end();
}

std::string operationName(const std::string& mangled) {
    if (mangled == "__cxa_pure_virtual")
        return c_sPure;
    const auto is = [&](const char* kind) { return mangled.find(kind) != std::string::npos; };
    return readable(mangled.c_str()) + (is("D1Ev") || is("D2Ev") ? " of the object"
                                        : is("D0Ev")             ? " and its memory"
                                                                 : "");
}

/** What an entry of a library's table stands for; @p expected when that is one of several names. */
std::string describedEntry(std::uintptr_t entry, const std::string& expected) {
    const auto* function = reinterpret_cast<const void*>(entry);
    Dl_info info{};
    if (dladdr(function, &info) != 0 && info.dli_sname != nullptr && info.dli_saddr == function &&
        operationName(info.dli_sname) == c_sPure) {
        return c_sPure;
    }
    std::string described = entry == 0 ? "(nothing)" : c_sInline;
    for (const std::string& name : exportedNames(function)) {
        described = operationName(name);
        if (described == expected)
            break;
    }
    return described;
}

/** The library's table of a class, as so many words of memory. */
struct VirtualTable {
    const std::uintptr_t* words = nullptr;
    std::size_t count = 0;
};

VirtualTable virtualTable(const ClassRow& row) {
    const void* table = exportedAddress("_ZTV" + row.mangledName);
    Dl_info info{};
    void* extra = nullptr;
    if (table == nullptr || dladdr1(table, &info, &extra, RTLD_DL_SYMENT) == 0 || extra == nullptr)
        return {};
    const auto* symbol = static_cast<const ElfW(Sym)*>(extra);
    return {static_cast<const std::uintptr_t*>(table), symbol->st_size / sizeof(void*)};
}

std::string nameOf(const testing::TestParamInfo<ClassRow>& info) {
    return info.param.name;
}

class VirtualSlots : public testing::TestWithParam<ClassRow> {};

TEST_P(VirtualSlots, ProgramsCallEachOperationThroughTheSlotOfTheTable) {
    for (const Slot& slot : slotsOf(GetParam().name))
        EXPECT_EQ(slot.compiledSlot, slot.slot) << slot.className << "::" << slot.operation;
}

TEST_P(VirtualSlots, TheLibraryHasTheOperationsOfTheTableAndNoMore) {
    const VirtualTable table = virtualTable(GetParam());
    ASSERT_NE(table.words, nullptr);
    const auto groups = expectedGroups(GetParam());
    std::size_t expectedCount = 0;
    for (const Group& group : groups)
        expectedCount += 2 + group.slots.size();
    ASSERT_EQ(table.count, expectedCount);
    const std::uintptr_t* word = table.words;
    for (const Group& group : groups) {
        EXPECT_EQ(static_cast<std::ptrdiff_t>(word[0]), -group.offset);
        EXPECT_EQ(reinterpret_cast<const std::type_info*>(word[1])->name(), GetParam().mangledName);
        std::vector<std::string> found;
        std::transform(word + 2, word + 2 + group.slots.size(), group.slots.begin(),
                       std::back_inserter(found), describedEntry);
        // An abstract class's own table is in use only while its constructors and its destructor run, and g++
        // leaves the destructors out of it.
        if (isAbstract(groups) && word[2] == 0 && word[3] == 0)
            std::copy_n(group.slots.begin(), 2, found.begin());
        EXPECT_THAT(found, testing::ElementsAreArray(group.slots)) << "behind offset " << group.offset;
        word += 2 + group.slots.size();
    }
}

INSTANTIATE_TEST_SUITE_P(Abi, VirtualSlots, testing::ValuesIn(classesWithVirtualOperations()), nameOf);

} // namespace
} // namespace VornAbi
