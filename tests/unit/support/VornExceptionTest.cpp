// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"
#include "Process.h"
#include "Sanitizer.h"
#include "SharedObject.h"
#include "plugins/RegistryPlugin.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iostream>
#include <string>
#include <system_error>

#include <VornException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

using namespace VornTest;
using namespace VornSupport;

namespace {

using testing::HasSubstr;

class VornExceptionTest : public LeakCheckedTest {};

class Special : public VornException {
public:
    explicit Special(const VornString& text) : VornException(text, 3) {}
};

VornString allBytes() {
    VornString result;
    for (int value = 0; value < 256; ++value)
        result += static_cast<char>(value);
    return result;
}

/** The text after it has gone narrow, wide and narrow again. */
VornString throughWideText(const VornString& text) {
    const VornException first(text, 0);
    VornException second("", 0);
    second.setText(first.getUText());
    return second.getText();
}

/** The call stack of an exception that is constructed so many calls further in. */
[[gnu::noinline]] VornString callStackFrom(int depth) {
    if (depth == 0)
        return VornException("text", 0).getCallStack();
    VornString callStack = callStackFrom(depth - 1);
    EXPECT_FALSE(callStack.empty()); // what comes afterwards keeps the call from being a jump
    return callStack;
}

/**
 * Machine code that belongs to no file, as a just-in-time compiler makes it. It calls the function it is
 * given.
 */
class FilelessCode {
public:
    FilelessCode()
        : m_page(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (m_page == MAP_FAILED)
            throw std::system_error(errno, std::generic_category(), "mmap()");
        std::memcpy(m_page, code.data(), sizeof code);
        char* const begin = static_cast<char*>(m_page);
        __builtin___clear_cache(begin, begin + sizeof code);
        if (::mprotect(m_page, size, PROT_READ | PROT_EXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "mprotect()");
    }

    ~FilelessCode() { ::munmap(m_page, size); }

    FilelessCode(const FilelessCode&) = delete;
    FilelessCode& operator=(const FilelessCode&) = delete;

    void call(void (*function)()) const { reinterpret_cast<void (*)(void (*)())>(m_page)(function); }

private:
    static constexpr std::size_t size = 4096;
#ifdef __x86_64__
    // sub $8,%rsp; call *%rdi; add $8,%rsp; ret
    static constexpr std::array<unsigned char, 11> code = {0x48, 0x83, 0xEC, 0x08, 0xFF, 0xD7,
                                                           0x48, 0x83, 0xC4, 0x08, 0xC3};
#elif defined(__aarch64__)
    // stp x29,x30,[sp,#-16]!; mov x29,sp; blr x0; ldp x29,x30,[sp],#16; ret
    static constexpr std::array<unsigned, 5> code = {0xA9BF7BFD, 0x910003FD, 0xD63F0000, 0xA8C17BFD,
                                                     0xD65F03C0};
#else
#    error "a caller in this machine's code is needed here"
#endif

    void* m_page;
};

} // namespace

TEST_F(VornExceptionTest, HasTheTextAndTheCodeGivenAtConstruction) {
    const VornException exception("VornServerSocket::init: failed to bind socket.", 98);
    EXPECT_EQ(exception.getText(), "VornServerSocket::init: failed to bind socket.");
    EXPECT_EQ(exception.getUText(), L"VornServerSocket::init: failed to bind socket.");
    EXPECT_EQ(exception.getCode(), 98);
}

TEST_F(VornExceptionTest, TextOfAll256Bytes_IsKeptByteForByte) {
    EXPECT_EQ(VornException(allBytes(), 0).getText(), allBytes());
    EXPECT_EQ(throughWideText(allBytes()), allBytes());
}

TEST_F(VornExceptionTest, ValidUtf8_HasTheRightWideCharacters) {
    const VornException exception("a \xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80", 0);
    EXPECT_EQ(exception.getUText(), L"a \u00FC \u20AC \U0001F600");
    EXPECT_EQ(exception.getText(), "a \xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80");
}

TEST_F(VornExceptionTest, SetCode_LeavesTheText) {
    VornException exception("text", 1);
    exception.setCode(-7);
    EXPECT_EQ(exception.getCode(), -7);
    EXPECT_EQ(exception.getText(), "text");
}

TEST_F(VornExceptionTest, SetNarrowText_ReplacesTheTextAndLeavesTheRest) {
    VornException exception("text", 1);
    exception.pushMessage(L"message");
    const VornString callStack = exception.getCallStack();
    exception.setText(VornString("\xFF other"));
    EXPECT_EQ(exception.getText(), "\xFF other");
    EXPECT_EQ(exception.getCode(), 1);
    EXPECT_EQ(exception.getCallStack(), callStack);
    EXPECT_EQ(exception.getFormattedMessages(), "message\n");
}

TEST_F(VornExceptionTest, SetWideText_ReplacesTheText) {
    VornException exception("text", 1);
    exception.setText(VornUString(L"\u20AC5"));
    EXPECT_EQ(exception.getUText(), L"\u20AC5");
    EXPECT_EQ(exception.getText(), "\xE2\x82\xAC"
                                   "5");
}

TEST_F(VornExceptionTest, PopMessage_ReturnsTheNewestFirstAndNothingInTheEnd) {
    VornException exception("text", 0);
    EXPECT_EQ(exception.popMessage(), "");
    exception.pushMessage(L"first");
    exception.pushMessage(L"second \u20AC");
    EXPECT_EQ(exception.popMessage(), "second \xE2\x82\xAC");
    EXPECT_EQ(exception.popMessage(), "first");
    EXPECT_EQ(exception.popMessage(), "");
}

TEST_F(VornExceptionTest, FormattedMessages_AreOneLineEachNewestFirst) {
    VornException exception("text", 0);
    EXPECT_EQ(exception.getFormattedMessages(), "");
    exception.pushMessage(L"first");
    exception.pushMessage(L"second");
    EXPECT_EQ(exception.getFormattedMessages(), "second\nfirst\n");
    EXPECT_EQ(exception.getText(), "text");
}

KIT_ROLE(showCallStack) {
    std::cout << (VornException("text", 0).getCallStack().empty() ? "empty" : "filled") << std::endl;
    return 0;
}

TEST_F(VornExceptionTest, CallStack_WhereTheSystemCannotFindObjectsOrHasNoHeaderForIt_IsEmpty) {
    if (underSanitizer)
        GTEST_SKIP() << mustBeLoadedFirst;
    EXPECT_EQ(ChildProcess::spawnRole("showCallStack").readAllOutput(), "filled\n");
    for (const char* preload :
         {"LD_PRELOAD=" VORNTEST_OLDER_SYSTEM_FILE, "LD_PRELOAD=" VORNTEST_WITHOUT_EXECINFO_FILE})
        EXPECT_EQ(ChildProcess::spawnRoleWith({preload}, "showCallStack").readAllOutput(), "empty\n");
}

TEST_F(VornExceptionTest, CallStack_NamesTheProgramThatConstructedIt) {
    const VornException exception("text", 0);
    EXPECT_THAT(exception.getCallStack(), HasSubstr("support_tests"));
    EXPECT_EQ(exception.getCallStack().back(), '\n');
}

TEST_F(VornExceptionTest, CallStack_BeginsWithTheFunctionThatConstructedIt) {
    if (underSanitizer)
        GTEST_SKIP() << "its own backtrace() is one frame more";
    const SharedObject plugin(VORNTEST_REGISTRY_PLUGIN_FILE);
    const auto thrower = plugin.function<decltype(throwException)>("throwException");
    VornString callStack;
    try {
        thrower("over there", 42);
    } catch (const VornException& exception) {
        callStack = exception.getCallStack();
    }
    Dl_info object = {};
    ASSERT_NE(::dladdr(reinterpret_cast<void*>(thrower), &object), 0);
    const std::string before = std::string(object.dli_fname) + "(+0x";
    ASSERT_THAT(callStack, testing::StartsWith(before));
    const std::size_t offset = std::stoul(callStack.substr(before.size()), nullptr, 16);
    // Where it returns to may be after the function's end.
    Dl_info first = {};
    ASSERT_NE(::dladdr(static_cast<char*>(object.dli_fbase) + offset - 1, &first), 0);
    EXPECT_STREQ(first.dli_sname, "throwException");
}

TEST_F(VornExceptionTest, CallStack_HasNoMoreThanThirtyLines) {
    for (const int depth : {0, 100}) {
        const VornString callStack = callStackFrom(depth);
        const auto lines = std::count(callStack.begin(), callStack.end(), '\n');
        EXPECT_EQ(lines == 30, depth == 100) << callStack;
        EXPECT_LE(lines, 30);
    }
}

TEST_F(VornExceptionTest, ACopyAndAnAssignedOne_HaveEverythingOfTheOriginalAndAreIndependent) {
    VornException original("text", 5);
    original.pushMessage(L"message");
    VornException copy(original);
    VornException assigned("other", 1);
    assigned = original;
    for (VornException* each : {&copy, &assigned}) {
        EXPECT_EQ(each->getText(), "text");
        EXPECT_EQ(each->getCode(), 5);
        EXPECT_EQ(each->getCallStack(), original.getCallStack());
        EXPECT_EQ(each->getFormattedMessages(), "message\n");
        each->setCode(6);
        each->popMessage();
    }
    EXPECT_EQ(original.getCode(), 5);
    EXPECT_EQ(original.getFormattedMessages(), "message\n");
}

TEST_F(VornExceptionTest, ThrownByAnotherSharedObject_IsCaughtByItsType) {
    const SharedObject plugin(VORNTEST_REGISTRY_PLUGIN_FILE);
    const auto thrower = plugin.function<decltype(throwException)>("throwException");
    std::string text;
    int code = 0;
    try {
        thrower("over there \xFF", 42);
    } catch (const VornException& exception) {
        text = exception.getText();
        code = exception.getCode();
    }
    EXPECT_EQ(text, "over there \xFF");
    EXPECT_EQ(code, 42);
}

TEST_F(VornExceptionTest, ThrownHere_IsCaughtByAnotherSharedObject) {
    const SharedObject plugin(VORNTEST_REGISTRY_PLUGIN_FILE);
    const auto catcher = plugin.function<decltype(codeThrownBy)>("codeThrownBy");
    EXPECT_EQ(catcher([] { throw VornException("here", 17); }), 17);
    EXPECT_EQ(catcher([] { throw Special("derived, and private to this file"); }), 3);
    EXPECT_EQ(catcher([] { throw 5; }), -1);
}

TEST_F(VornExceptionTest, CallStack_ThroughCodeThatBelongsToNoFile_ShowsItsAddressAlone) {
    static VornString callStack;
    const FilelessCode code;
    code.call([] { callStack = VornException("text", 0).getCallStack(); });
    EXPECT_THAT(callStack, testing::ContainsRegex("support_tests.*\n\\?\\(\\+0x[0-9a-f]+\\)\n"));
}
