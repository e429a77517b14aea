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
#include <VornUnableToResolveNameException.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornNet::VornUnableToResolveNameException;
using VornSupport::VornException;
using VornSupport::VornString;

namespace {

class VornUnableToResolveNameExceptionTest : public LeakCheckedTest {};

} // namespace

TEST_F(VornUnableToResolveNameExceptionTest, TextIsItsNameABlankAHyphenABlankAndTheMessage) {
    const VornUnableToResolveNameException exception("host1");
    EXPECT_EQ(exception.getText(), "VornUnableToResolveNameException - host1");
    EXPECT_EQ(exception.getUText(), L"VornUnableToResolveNameException - host1");
    EXPECT_EQ(exception.getCode(), 0);
}

TEST_F(VornUnableToResolveNameExceptionTest, AnyMessage_IsKeptByteForByte) {
    EXPECT_EQ(VornUnableToResolveNameException("").getText(), "VornUnableToResolveNameException - ");
    const VornString odd("\xFF\0 \xC3", 4);
    EXPECT_EQ(VornUnableToResolveNameException(odd).getText(), "VornUnableToResolveNameException - " + odd);
}

TEST_F(VornUnableToResolveNameExceptionTest, CopiesAndAssigns_MemberByMember) {
    VornUnableToResolveNameException original("host1");
    original.setCode(7);
    original.pushMessage(L"message");
    const VornUnableToResolveNameException copy(original);
    VornUnableToResolveNameException assigned("other");
    assigned = original;
    for (const VornException* each :
         {static_cast<const VornException*>(&copy), static_cast<const VornException*>(&assigned)}) {
        EXPECT_EQ(each->getText(), original.getText());
        EXPECT_EQ(each->getCode(), 7);
        EXPECT_EQ(each->getFormattedMessages(), "message\n");
        EXPECT_EQ(each->getCallStack(), original.getCallStack());
    }
}

TEST_F(VornUnableToResolveNameExceptionTest, IsCaughtByItsTypeAndAsItsBase) {
    EXPECT_THROW(throw VornUnableToResolveNameException("host1"), VornUnableToResolveNameException);
    EXPECT_THROW(throw VornUnableToResolveNameException("host1"), VornException);
}

TEST_F(VornUnableToResolveNameExceptionTest, ThrownByAnotherSharedObject_IsCaughtByItsType) {
    const SharedObject plugin(VORNTEST_REGISTRY_PLUGIN_FILE);
    const auto thrower = plugin.function<decltype(throwUnableToResolveName)>("throwUnableToResolveName");
    std::string text;
    try {
        thrower("over there");
    } catch (const VornUnableToResolveNameException& exception) {
        text = exception.getText();
    }
    EXPECT_EQ(text, "VornUnableToResolveNameException - over there");
}

TEST_F(VornUnableToResolveNameExceptionTest, CaughtAsItsBase_HasItsOwnRunTimeTypeName) {
    const SharedObject plugin(VORNTEST_REGISTRY_PLUGIN_FILE);
    const auto thrower = plugin.function<decltype(throwUnableToResolveName)>("throwUnableToResolveName");
    std::string name;
    try {
        thrower("over there");
    } catch (const VornException& exception) {
        name = VornSupport::VornObjectBase::normalizeClassName(typeid(exception).name());
    }
    EXPECT_EQ(name, "VornNet::VornUnableToResolveNameException");
}

TEST_F(VornUnableToResolveNameExceptionTest, ThrownByAnotherSharedObject_IsCaughtAsItsBase) {
    const SharedObject plugin(VORNTEST_REGISTRY_PLUGIN_FILE);
    const auto thrower = plugin.function<decltype(throwUnableToResolveName)>("throwUnableToResolveName");
    EXPECT_THROW(thrower("over there"), VornException);
}

TEST_F(VornUnableToResolveNameExceptionTest, HasNoFieldsOfItsOwn) {
    EXPECT_EQ(sizeof(VornUnableToResolveNameException), sizeof(VornException));
    EXPECT_TRUE((std::is_base_of_v<VornException, VornUnableToResolveNameException>));
}
