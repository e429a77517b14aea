// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * The two exceptions of failed look-ups, which differ in nothing but their names.
 */

#include "LeakCheckedTest.h"
#include "SharedObject.h"
#include "plugins/RegistryPlugin.h"

#include <string>
#include <type_traits>
#include <typeinfo>

#include <VornException.h>
#include <VornObjectBase.h>
#include <VornUnableToResolveAddressException.h>
#include <VornUnableToResolveNameException.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornNet::VornUnableToResolveAddressException;
using VornNet::VornUnableToResolveNameException;
using VornSupport::VornException;
using VornSupport::VornString;

namespace {

/** Which of them is tested. */
struct Names {
    template <typename Exception>
    static std::string GetName(int /*index*/) {
        return std::is_same_v<Exception, VornUnableToResolveNameException>
                   ? "VornUnableToResolveNameException"
                   : "VornUnableToResolveAddressException";
    }
};

template <typename Exception>
class ResolveException : public LeakCheckedTest {
protected:
    static std::string name() { return Names::GetName<Exception>(0); }

    /** Throws the exception from another shared object. */
    void throwOverThere() const {
        const bool isName = std::is_same_v<Exception, VornUnableToResolveNameException>;
        m_plugin.function<decltype(throwUnableToResolveName)>(
            isName ? "throwUnableToResolveName" : "throwUnableToResolveAddress")("over there");
    }

private:
    const SharedObject m_plugin{VORNTEST_REGISTRY_PLUGIN_FILE};
};

using Exceptions = testing::Types<VornUnableToResolveNameException, VornUnableToResolveAddressException>;
TYPED_TEST_SUITE(ResolveException, Exceptions, Names);

} // namespace

TYPED_TEST(ResolveException, TextIsItsNameABlankAHyphenABlankAndTheMessage) {
    const TypeParam exception("host1");
    const std::string text = this->name() + " - host1";
    EXPECT_EQ(exception.getText(), text);
    EXPECT_EQ(exception.getUText(), std::wstring(text.begin(), text.end()));
    EXPECT_EQ(exception.getCode(), 0);
}

TYPED_TEST(ResolveException, AnyMessage_IsKeptByteForByte) {
    EXPECT_EQ(TypeParam("").getText(), this->name() + " - ");
    const VornString odd("\xFF\0 \xC3", 4);
    EXPECT_EQ(TypeParam(odd).getText(), this->name() + " - " + odd);
}

TYPED_TEST(ResolveException, CopiesAndAssigns_MemberByMember) {
    TypeParam original("host1");
    original.setCode(7);
    original.pushMessage(L"message");
    const TypeParam copy(original);
    TypeParam assigned("other");
    assigned = original;
    for (const VornException* each :
         {static_cast<const VornException*>(&copy), static_cast<const VornException*>(&assigned)}) {
        EXPECT_EQ(each->getText(), original.getText());
        EXPECT_EQ(each->getCode(), 7);
        EXPECT_EQ(each->getFormattedMessages(), "message\n");
        EXPECT_EQ(each->getCallStack(), original.getCallStack());
    }
}

TYPED_TEST(ResolveException, ThrownByAnotherSharedObject_IsCaughtByItsTypeAndAsItsBase) {
    std::string text;
    try {
        this->throwOverThere();
    } catch (const TypeParam& exception) {
        text = exception.getText();
    }
    EXPECT_EQ(text, this->name() + " - over there");
    EXPECT_THROW(this->throwOverThere(), VornException);
}

TYPED_TEST(ResolveException, CaughtAsItsBase_HasItsOwnRunTimeTypeName) {
    std::string name;
    try {
        this->throwOverThere();
    } catch (const VornException& exception) {
        name = VornSupport::VornObjectBase::normalizeClassName(typeid(exception).name());
    }
    EXPECT_EQ(name, "VornNet::" + this->name());
}
