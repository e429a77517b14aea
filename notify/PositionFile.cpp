// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PositionFile.h"

#include "SystemError.h"

#include <VornException.h>

#include <array>
#include <cerrno>

namespace VornNet {

namespace {

VornPosition positionIn(VornString sLine) {
    if (sLine.empty())
        return {};
    if (sLine.back() == '\n')
        sLine.pop_back();
    try {
        return VornPosition::fromText(sLine);
    } catch (const VornException& e) {
        throwSystemError(e.getCode());
    }
}

} // namespace

PositionFile::PositionFile(const VornString& sPath)
    : m_file(System::open(sPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (!m_file.isOpen() || System::flock(m_file.number(), LOCK_EX | LOCK_NB) == -1)
        throwSystemError(errno);
    std::array<char, 64> text;
    const ssize_t count = System::pread(m_file.number(), text.data(), text.size(), 0);
    if (count == -1)
        throwSystemError(errno);
    m_position = positionIn(VornString(text.data(), static_cast<std::size_t>(count)));
}

void PositionFile::note(const VornPosition& position) const {
    const VornString sLine = position.text() + '\n';
    [[maybe_unused]] const ssize_t ignored = System::pwrite(m_file.number(), sLine.data(), sLine.size(), 0);
}

} // namespace VornNet
