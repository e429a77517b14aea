// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornException.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <new>

#include <dlfcn.h>
#if __has_include(<execinfo.h>)
#    include <execinfo.h>
#endif
#include <link.h>

namespace VornSupport {

namespace {

// _dl_find_object() came with glibc 2.35. On an older system, to build on or to run on, the text stays empty.
#if __has_include(<execinfo.h>) && defined(DLFO_STRUCT_HAS_EH_DBASE)

using FindObject = int (*)(void* address, dl_find_object* result);

/** @return the function, null where there is none. Looked up by name: a weak symbol needs glibc 2.35 too. */
FindObject findObject() {
    static const auto find = reinterpret_cast<FindObject>(::dlsym(RTLD_DEFAULT, "_dl_find_object"));
    return find;
}

/**
 * Appends "FILE(+0xOFFSET)", which addr2line(1) understands. Names of functions are left out: looking one up
 * takes longer than everything else that a throw does, and most functions of the libraries are hidden from
 * it.
 */
void appendFrame(VornString& stack, void* address) {
    dl_find_object object{};
    const bool isKnown = findObject()(address, &object) == 0;
    const char* file = isKnown ? object.dlfo_link_map->l_name : "?";
    const auto base = isKnown ? object.dlfo_link_map->l_addr : 0;
    std::array<char, 32> offset{};
    std::snprintf(offset.data(), offset.size(), "(+0x%zx)\n", reinterpret_cast<std::size_t>(address) - base);
    stack.append(*file == '\0' ? program_invocation_name : file).append(offset.data());
}

[[gnu::noinline]] VornString captureCallStack() {
    constexpr int cMostFrames = 32;
    constexpr int cOwnFrames = 2; // this function and the constructor
    if (findObject() == nullptr)
        return {};
    std::array<void*, cMostFrames> frames{};
    const int count = ::backtrace(frames.data(), cMostFrames);
    VornString stack;
    for (int i = cOwnFrames; i < count; ++i)
        appendFrame(stack, frames[static_cast<std::size_t>(i)]);
    return stack;
}

#else

VornString captureCallStack() {
    return {};
}

#endif

} // namespace

VornException::VornException(const VornString& text, int nCode)
    : m_sText(VornStringToWide(text)), m_nCode(nCode) {
    try {
        m_sCallStack = captureCallStack();
    } catch (const std::bad_alloc&) { // GCOVR_EXCL_BR_LINE: nothing else is thrown
        // The failure that is being reported matters more than where it happened.
    }
}

VornException::VornException(const VornException& source) = default;

VornException& VornException::operator=(const VornException& source) {
    VornException copy(source); // what can fail comes first
    m_sText.swap(copy.m_sText);
    m_nCode = copy.m_nCode;
    m_sCallStack.swap(copy.m_sCallStack);
    m_messages.swap(copy.m_messages);
    return *this;
}

VornException::~VornException() = default;

VornString VornException::getText() const {
    return VornStringToNarrow(m_sText);
}

void VornException::setText(const VornString& sText) {
    m_sText = VornStringToWide(sText);
}

void VornException::pushMessage(const VornUString& sMessage) {
    m_messages.push_back(sMessage);
}

VornString VornException::popMessage() {
    if (m_messages.empty())
        return {};
    VornString newest = VornStringToNarrow(m_messages.back());
    m_messages.pop_back();
    return newest;
}

VornString VornException::getFormattedMessages() const {
    VornString result;
    for (auto message = m_messages.rbegin(); message != m_messages.rend(); ++message)
        result.append(VornStringToNarrow(*message)).append(1, '\n');
    return result;
}

} // namespace VornSupport
