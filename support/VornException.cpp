// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornException.h"

#include <array>
#include <cstdlib>
#include <memory>
#include <new>

#include <execinfo.h>

namespace VornSupport {

namespace {

VornString captureCallStack() {
    constexpr int cMostFrames = 32;
    constexpr int cOwnFrames = 2; // this function and the constructor
    std::array<void*, cMostFrames> frames{};
    const int count = ::backtrace(frames.data(), cMostFrames);
    const std::unique_ptr<char*, decltype(&std::free)> lines(::backtrace_symbols(frames.data(), count),
                                                             &std::free);
    if (lines == nullptr)
        return {};
    VornString result;
    for (int i = cOwnFrames; i < count; ++i)
        result.append(lines.get()[i]).append(1, '\n');
    return result;
}

} // namespace

VornException::VornException(const VornString& text, int nCode)
    : m_sText(VornStringToWide(text)), m_nCode(nCode) {
    try {
        m_sCallStack = captureCallStack();
    } catch (const std::bad_alloc&) {
        // The failure that is being reported matters more than where it happened.
    }
}

VornException::VornException(const VornException& source) = default;

VornException& VornException::operator=(const VornException& source) = default;

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
