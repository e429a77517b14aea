// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AbiTable.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <type_traits>
#include <typeinfo>

#include <cxxabi.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace VornAbi {

#define FIELD(class_, offset_, type_, field_) ABI_REVEAL(FieldRow, type_ class_::*, &class_::field_)
#include "Fields.inc"

namespace {

struct Field {
    std::string className;
    std::string name;
    std::size_t offset;         // as in the table
    std::size_t compiledOffset; // as compiled
    std::size_t size;
    std::size_t alignment;
};

template <typename Class, typename Type>
Field makeField(const char* className, const char* name, std::size_t offset, Type Class::*member) {
    // A pointer to a data member is nothing but the field's offset.
    std::ptrdiff_t compiled = 0;
    static_assert(sizeof(compiled) == sizeof(member));
    std::memcpy(&compiled, &member, sizeof(compiled));
    return {classRow(className).name,           name,         offset,
            static_cast<std::size_t>(compiled), sizeof(Type), alignof(Type)};
}

std::vector<Field> fieldsOf(const std::string& className) {
    static const std::vector<Field> fields = {
#define FIELD(class_, offset_, type_, field_)                                                                \
    makeField(#class_, #field_, offset_, revealed(ABI_ROW(FieldRow)())),
#include "Fields.inc"
    };
    std::vector<Field> found;
    std::copy_if(fields.begin(), fields.end(), std::back_inserter(found),
                 [&](const Field& field) { return field.className == className; });
    return found;
}

std::size_t roundedUp(std::size_t value, std::size_t alignment) {
    return (value + alignment - 1) / alignment * alignment;
}

/** What stands after a class's bases without having a row: private state, and the one reference. */
std::size_t sizeWithoutRow(const std::string& className) {
    static const std::map<std::string, std::size_t> sizes = {
        {"VornCriticalSection", sizeof(VornCriticalSectionObject*)},
        {"VornDispatcher", sizeof(void*)},
        {"VornEvent", sizeof(void*)},
        {"VornMetrics", sizeof(void*)},
        {"VornPublisher", sizeof(void*)},
        {"VornSteadySink", sizeof(void*)},
        {"VornSubscriber", sizeof(std::shared_ptr<int>)},
        {"VornThread", sizeof(std::shared_ptr<int>)}};
    const auto found = sizes.find(className);
    return found == sizes.end() ? 0 : found->second;
}

std::size_t endOfFields(const ClassRow& row);

/** Where the first field of the class may begin. */
std::size_t beginOfFields(const ClassRow& row) {
    std::size_t end = row.mangledName.empty() ? 0 : sizeof(void*);
    if (!row.bases.empty()) {
        const Base& last = row.bases.back();
        end = static_cast<std::size_t>(last.offset) + endOfFields(classRow(last.name));
    }
    const std::size_t withoutRow = sizeWithoutRow(row.name);
    return withoutRow == 0 ? end : roundedUp(end, alignof(void*)) + withoutRow;
}

/** Where the last field of the class ends; the padding after it is left out, for a derived class may use it.
 */
std::size_t endOfFields(const ClassRow& row) {
    const auto fields = fieldsOf(row.name);
    return fields.empty() ? beginOfFields(row) : fields.back().offset + fields.back().size;
}

/** The public and not virtual bases that the library's own description of the type names, with their offsets.
 */
std::vector<std::string> describedBases(const std::type_info& type) {
    std::vector<std::string> bases;
    if (const auto* single = dynamic_cast<const abi::__si_class_type_info*>(&type)) {
        bases.push_back(readable(single->__base_type->name()) + " at 0");
    } else if (const auto* several = dynamic_cast<const abi::__vmi_class_type_info*>(&type)) {
        for (unsigned int i = 0; i < several->__base_count; ++i) {
            const abi::__base_class_type_info& base = several->__base_info[i];
            bases.push_back(readable(base.__base_type->name()) + " at " + std::to_string(base.__offset()) +
                            (base.__is_public_p() ? "" : ", not public") +
                            (base.__is_virtual_p() ? ", virtual" : ""));
        }
    }
    return bases;
}

std::string nameOf(const testing::TestParamInfo<ClassRow>& info) {
    std::string name = info.param.name;
    std::replace_if(
        name.begin(), name.end(), [](char character) { return character == '<' || character == '>'; }, '_');
    return name;
}

class Layout : public testing::TestWithParam<ClassRow> {};

TEST_P(Layout, SizeIsAsInTheTable) {
    EXPECT_EQ(GetParam().compiledSize, GetParam().size);
}

TEST_P(Layout, EveryFieldStandsWhereTheTableSays) {
    for (const Field& field : fieldsOf(GetParam().name))
        EXPECT_EQ(field.compiledOffset, field.offset) << field.className << "::" << field.name;
}

TEST_P(Layout, NothingStandsBetweenTheFieldsOfTheTable) {
    std::size_t end = beginOfFields(GetParam());
    for (const Field& field : fieldsOf(GetParam().name)) {
        EXPECT_EQ(field.compiledOffset, roundedUp(end, field.alignment))
            << field.className << "::" << field.name;
        end = field.compiledOffset + field.size;
    }
    // A class has a size, also when it has nothing in it.
    EXPECT_EQ(GetParam().compiledSize, roundedUp(std::max<std::size_t>(end, 1), GetParam().alignment));
}

INSTANTIATE_TEST_SUITE_P(Abi, Layout, testing::ValuesIn(classTable()), nameOf);

class BaseClasses : public testing::TestWithParam<ClassRow> {};

TEST_P(BaseClasses, TheLibraryDescribesTheBasesOfTheTableInTheirOrder) {
    const auto* type = static_cast<const std::type_info*>(exportedAddress("_ZTI" + GetParam().mangledName));
    ASSERT_NE(type, nullptr);
    std::vector<std::string> expected;
    for (const Base& base : GetParam().bases)
        expected.push_back(base.name + " at " + std::to_string(base.offset));
    EXPECT_THAT(describedBases(*type), testing::ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(Abi, BaseClasses, testing::ValuesIn(classesWithVirtualOperations()), nameOf);

TEST(FieldLayout, TheHolderOfAMutexRefersToItFirst) {
    VornCriticalSectionObject object;
    const VornCriticalSection holder(object, false);
    const VornCriticalSectionObject* first = nullptr;
    std::memcpy(&first, static_cast<const void*>(&holder), sizeof(first));
    EXPECT_EQ(first, &object);
}

// The types that the tables call by another name.
static_assert(std::is_same_v<VornString, std::string>);
static_assert(std::is_same_v<VornUString, std::wstring>);
static_assert(std::is_same_v<VornCertificate::Type, int>);
static_assert(
    std::is_same_v<NotificationCallbackMap, std::map<int, VornSmartPointer<VornNotificationCallback>>>);
static_assert(std::is_same_v<ProxyDependentMap,
                             std::map<VornProxyDependentIdentifier, VornSmartPointer<VornProxyDependent>>>);

static_assert(VornLogging::cOff == -1 && VornLogging::cUserOutput == 0 && VornLogging::cError == 1 &&
              VornLogging::cWarning == 2 && VornLogging::cInformation == 3 && VornLogging::cVerbose == 4 &&
              VornLogging::cTraceCoreLow == 5 && VornLogging::cTraceApplicationLow == 6 &&
              VornLogging::cTraceCoreHigh == 7 && VornLogging::cTraceApplicationHigh == 8 &&
              VornLogging::cDebug == 9 && VornLogging::cLast == 10);

static_assert(VornThread::cPriorityLow == 0 && VornThread::cPriorityNormal == 1 &&
              VornThread::cPriorityHigh == 2);

template <typename Class>
constexpr bool isNeverCopied = !std::is_copy_constructible_v<Class> && !std::is_copy_assignable_v<Class>;

static_assert(isNeverCopied<VornBufferConnection> && isNeverCopied<VornSocketConnection> &&
              isNeverCopied<VornPipeConnection> && isNeverCopied<VornUDPSocketConnection> &&
              isNeverCopied<VornSSLSocketConnection>);
static_assert(isNeverCopied<VornServerSocket> && isNeverCopied<VornPipeServer> &&
              isNeverCopied<VornUDPServerSocket> && isNeverCopied<VornSSLServerSocket>);
static_assert(isNeverCopied<VornCallbackContainer> && isNeverCopied<VornLibraryCallbackSink> &&
              isNeverCopied<VornProxyDependent> && isNeverCopied<VornProxyDependentContainer>);
static_assert(isNeverCopied<VornEvent> && isNeverCopied<VornThread> && isNeverCopied<VornCriticalSection> &&
              isNeverCopied<VornCriticalSectionObject>);
static_assert(std::is_abstract_v<VornConnection> && !std::is_copy_assignable_v<VornConnection>);
static_assert(!std::is_default_constructible_v<VornProxyDependentContainer> &&
              !std::is_destructible_v<VornProxyDependentContainer>);

} // namespace
} // namespace VornAbi
