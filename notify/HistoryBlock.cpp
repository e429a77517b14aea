// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "HistoryBlock.h"

#include "SystemError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace VornNet {

namespace {

constexpr std::string_view cMagic = "vornhis1";

/** @return the name of this run of the system; empty when it cannot be told, and then no file is of it. */
VornString bootId() {
    std::array<char, sizeof HistoryHeader::bootId> text{};
    const OwnedDescriptor file(System::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC, 0));
    if (System::read(file.number(), text.data(), text.size() - 1) > 0)
        return text.data();
    return {};
}

bool isOfThisBoot(const HistoryHeader& header) {
    const VornString sId = bootId();
    const std::string_view headersId(header.bootId, ::strnlen(header.bootId, sizeof header.bootId));
    return !sId.empty() && sId == headersId;
}

} // namespace

HistoryBlock::HistoryBlock(std::size_t capacity) : m_capacity(capacity) {
    map(cHeaderSize + capacity, MAP_PRIVATE | MAP_ANONYMOUS);
}

HistoryBlock::HistoryBlock(const VornString& sPath, std::size_t capacity)
    : m_file(System::open(sPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)),
      m_capacity(capacity) {
    if (!m_file.isOpen() || System::flock(m_file.number(), LOCK_EX | LOCK_NB) == -1)
        throwSystemError(errno);
    prepareFile(cHeaderSize + capacity);
    map(cHeaderSize + capacity, MAP_SHARED);
}

HistoryBlock::~HistoryBlock() {
    System::munmap(m_mapping, cHeaderSize + m_capacity);
}

bool HistoryBlock::isUsable() const {
    const HistoryHeader& h = header();
    return std::memcmp(h.magic, cMagic.data(), cMagic.size()) == 0 && h.capacity == m_capacity &&
           h.history != 0 && (h.isClosed == 1 || isOfThisBoot(h)) && h.oldest <= h.end &&
           h.end - h.oldest <= m_capacity;
}

void HistoryBlock::begin(std::uint64_t history) {
    HistoryHeader& h = header();
    // The number comes last: a process that is killed on the way leaves none.
    __atomic_store_n(&h.history, 0, __ATOMIC_RELEASE);
    std::memcpy(h.magic, cMagic.data(), cMagic.size());
    h.isClosed = 0;
    h.capacity = m_capacity;
    h.oldest = 0;
    h.end = 0;
    __atomic_store_n(&h.history, history, __ATOMIC_RELEASE);
}

void HistoryBlock::own() {
    HistoryHeader& h = header();
    // A process that is killed on the way leaves a file that is of this boot or closed, or both.
    if (!isOfThisBoot(h)) {
        const VornString sId = bootId();
        std::fill(std::begin(h.bootId), std::end(h.bootId), '\0');
        std::copy(sId.begin(), sId.end(), h.bootId);
    }
    __atomic_store_n(&h.isClosed, 0, __ATOMIC_RELEASE);
    // Were the old word still on the disk when the machine ends, frames that have been partly written over
    // would be taken for sound.
    System::msync(m_mapping, cHeaderSize, MS_SYNC);
}

void HistoryBlock::close() {
    if (!m_file.isOpen())
        return;
    if (System::msync(m_mapping, cHeaderSize + m_capacity, MS_SYNC) == 0) {
        header().isClosed = 1;
        System::msync(m_mapping, cHeaderSize, MS_SYNC);
    }
    // The mapping would hold the lock on.
    System::flock(m_file.number(), LOCK_UN);
    m_file.reset();
}

void HistoryBlock::prepareFile(std::size_t size) {
    struct stat status {};

    if (System::fstat(m_file.number(), &status) == -1)
        throwSystemError(errno);
    if (!S_ISREG(status.st_mode))
        throwSystemError(EINVAL);
    if (status.st_size != static_cast<off_t>(size) && System::ftruncate(m_file.number(), 0) == -1)
        throwSystemError(errno);
    int error = EINTR;
    while (error == EINTR)
        error = System::fallocate(m_file.number(), 0, static_cast<off_t>(size));
    if (error != 0) {
        // What was taken is given back, unless it is a history that was there already.
        if (status.st_size != static_cast<off_t>(size)) [[maybe_unused]]
            const int ignored = System::ftruncate(m_file.number(), 0);
        throwSystemError(error);
    }
}

void HistoryBlock::map(std::size_t size, int flags) {
    m_mapping = System::mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, m_file.number(), 0);
    if (m_mapping == MAP_FAILED)
        throwSystemError(errno);
}

} // namespace VornNet
