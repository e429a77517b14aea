// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"
#include "SharedObject.h"
#include "plugins/RegistryPlugin.h"

#include <string>
#include <type_traits>
#include <typeinfo>

#include <VornException.h>
#include <VornObjectBase.h>
#include <VornUnableToResolveAddressException.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornNet::VornUnableToResolveAddressException;
using VornSupport::VornException;
using VornSupport::VornString;

namespace {

class VornUnableToResolveAddressExceptionTest : public LeakCheckedTest {};

} // namespace

TEST_F(VornUnableToResolveAddressExceptionTest, TextIsItsNameABlankAHyphenABlankAndTheMessage) {
    const VornUnableToResolveAddressException exception("host1");
    EXPECT_EQ(exception.getText(), "VornUnableToResolveAddressException - host1");
    EXPECT_EQ(exception.getUText(), L"VornUnableToResolveAddressException - host1");
    EXPECT_EQ(exception.getCode(), 0);
}

TEST_F(VornUnableToResolveAddressExceptionTest, AnyMessage_IsKeptByteForByte) {
    EXPECT_EQ(VornUnableToResolveAddressException("").getText(), "VornUnableToResolveAddressException - ");
    const VornString odd("\xFF\0 \xC3", 4);
    EXPECT_EQ(VornUnableToResolveAddressException(odd).getText(),
              "VornUnableToResolveAddressException - " + odd);
}

TEST_F(VornUnableToResolveAddressExceptionTest, CopiesAndAssigns_MemberByMember) {
    VornUnableToResolveAddressException original("host1");
    original.setCode(7);
    original.pushMessage(L"message");
    const VornUnableToResolveAddressException copy(original);
    VornUnableToResolveAddressException assigned("other");
    assigned = original;
    for (const VornException* each :
         {static_cast<const VornException*>(&copy), static_cast<const VornException*>(&assigned)}) {
        EXPECT_EQ(each->getText(), original.getText());
        EXPECT_EQ(each->getCode(), 7);
        EXPECT_EQ(each->getFormattedMessages(), "message\n");
        EXPECT_EQ(each->getCallStack(), original.getCallStack());
    }
}

TEST_F(VornUnableToResolveAddressExceptionTest, IsCaughtByItsTypeAndAsItsBase) {
    EXPECT_THROW(throw VornUnableToResolveAddressException("host1"), VornUnableToResolveAddressException);
    EXPECT_THROW(throw VornUnableToResolveAddressException("host1"), VornException);
}

TEST_F(VornUnableToResolveAddressExceptionTest, ThrownByAnotherSharedObject_IsCaughtByItsType) {
    const SharedObject plugin(VORNTEST_REGISTRY_PLUGIN_FILE);
    const auto thrower =
        plugin.function<decltype(throwUnableToResolveAddress)>("throwUnableToResolveAddress");
    std::string text;
    try {
        thrower("over there");
    } catch (const VornUnableToResolveAddressException& exception) {
        text = exception.getText();
    }
    EXPECT_EQ(text, "VornUnableToResolveAddressException - over there");
}

TEST_F(VornUnableToResolveAddressExceptionTest, CaughtAsItsBase_HasItsOwnRunTimeTypeName) {
    const SharedObject plugin(VORNTEST_REGISTRY_PLUGIN_FILE);
    const auto thrower =
        plugin.function<decltype(throwUnableToResolveAddress)>("throwUnableToResolveAddress");
    std::string name;
    try {
        thrower("over there");
    } catch (const VornException& exception) {
        name = VornSupport::VornObjectBase::normalizeClassName(typeid(exception).name());
    }
    EXPECT_EQ(name, "VornNet::VornUnableToResolveAddressException");
}

TEST_F(VornUnableToResolveAddressExceptionTest, ThrownByAnotherSharedObject_IsCaughtAsItsBase) {
    const SharedObject plugin(VORNTEST_REGISTRY_PLUGIN_FILE);
    const auto thrower =
        plugin.function<decltype(throwUnableToResolveAddress)>("throwUnableToResolveAddress");
    EXPECT_THROW(thrower("over there"), VornException);
}

TEST_F(VornUnableToResolveAddressExceptionTest, HasNoFieldsOfItsOwn) {
    EXPECT_EQ(sizeof(VornUnableToResolveAddressException), sizeof(VornException));
    EXPECT_TRUE((std::is_base_of_v<VornException, VornUnableToResolveAddressException>));
}
