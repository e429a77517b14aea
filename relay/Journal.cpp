// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Journal.h"

#include "StateFile.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VornRelay {

namespace {

constexpr char cMagic[] = "vornnet relay journal 1\n"; // with a zero byte at its end
constexpr std::size_t cRecordSize = 256;
constexpr std::size_t cSourceSize = 200;

struct Place {
    std::uint64_t nBoot;
    std::uint64_t nCount;
    std::uint64_t nCheck;
};

struct Record {
    std::uint32_t nLease; // 0: free
    char source[cSourceSize];
    char unused[4];
    Place places[2];
};

static_assert(sizeof(Record) == cRecordSize);

std::uint64_t checkOf(const Record& record, const Place& place) {
    std::uint64_t nSum = 14695981039346656037U;
    const auto add = [&nSum](const void* data, std::size_t nSize) {
        for (const char c : std::string_view(static_cast<const char*>(data), nSize))
            nSum = (nSum ^ static_cast<unsigned char>(c)) * 1099511628211U;
    };
    add(&record, offsetof(Record, unused));
    add(&place, offsetof(Place, nCheck));
    return nSum;
}

off_t offsetOf(std::size_t nRecord) {
    return static_cast<off_t>((nRecord + 1) * cRecordSize); // the first one is the magic's
}

bool writeAt(int fd, const void* data, std::size_t nSize, off_t nOffset) {
    return ::pwrite(fd, data, nSize, nOffset) == static_cast<ssize_t>(nSize);
}

} // namespace

Journal::Journal(const std::string& sPath)
    : m_file(::open(sPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (!m_file.isOpen())
        failWith(sPath);
    if (load(sPath))
        return;
    m_bWasDamaged = true;
    m_entries.clear();
    m_free.clear();
    m_nRecords = 0;
    if (std::rename(sPath.c_str(), (sPath + ".damaged").c_str()) == -1)
        failWith(sPath);
    m_file.reset(::open(sPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!m_file.isOpen())
        failWith(sPath);
    begin(sPath);
}

bool Journal::isDamaged(const std::string& sPath) {
    const std::string sContent = readState(sPath);
    return !sContent.empty() &&
           (sContent.size() % cRecordSize != 0 || !sContent.starts_with(std::string(cMagic, sizeof cMagic)));
}

NotificationNumber Journal::last(std::uint32_t nLease, const std::string& sSource) const {
    const auto found = m_entries.find({nLease, sSource});
    return found == m_entries.end() ? NotificationNumber() : found->second.last;
}

bool Journal::note(std::uint32_t nLease, const std::string& sSource, const NotificationNumber& number) {
    const Key key(nLease, sSource.substr(0, cSourceSize - 1));
    const auto found = m_entries.find(key);
    Entry& entry = found == m_entries.end() ? place(key) : found->second;
    entry.last = number;
    entry.nNewest = 1 - entry.nNewest;
    Record record{};
    record.nLease = nLease;
    key.second.copy(record.source, cSourceSize - 1);
    Place& place = record.places[entry.nNewest];
    place = {number.nBoot, number.nCount, 0};
    place.nCheck = checkOf(record, place);
    const off_t nOffset = offsetOf(entry.nRecord);
    if (!entry.bWritten)
        return entry.bWritten = writeAt(m_file.number(), &record, sizeof record, nOffset);
    const auto nPlace = reinterpret_cast<const char*>(&place) - reinterpret_cast<const char*>(&record);
    return writeAt(m_file.number(), &place, sizeof place, nOffset + nPlace);
}

void Journal::forget(std::uint32_t nLease) {
    auto entry = m_entries.lower_bound({nLease, ""});
    while (entry != m_entries.end() && entry->first.first == nLease) {
        const Record free{};
        writeAt(m_file.number(), &free, sizeof free, offsetOf(entry->second.nRecord));
        m_free.push_back(entry->second.nRecord);
        entry = m_entries.erase(entry);
    }
}

std::set<std::uint32_t> Journal::leases() const {
    std::set<std::uint32_t> leases;
    for (const auto& [key, entry] : m_entries)
        leases.insert(key.first);
    return leases;
}

bool Journal::load(const std::string& sPath) {
    struct stat file {};

    if (::fstat(m_file.number(), &file) == -1)
        failWith(sPath);
    if (file.st_size == 0) {
        begin(sPath);
        return true;
    }
    char magic[cRecordSize];
    if (file.st_size % static_cast<off_t>(cRecordSize) != 0 ||
        ::pread(m_file.number(), magic, sizeof magic, 0) != static_cast<ssize_t>(sizeof magic) ||
        std::memcmp(magic, cMagic, sizeof cMagic) != 0)
        return false;
    m_nRecords = static_cast<std::size_t>(file.st_size) / cRecordSize - 1;
    for (std::size_t nRecord = 0; nRecord < m_nRecords; ++nRecord) {
        if (!loadRecord(nRecord))
            return false;
    }
    return true;
}

bool Journal::loadRecord(std::size_t nRecord) {
    Record record;
    if (::pread(m_file.number(), &record, sizeof record, offsetOf(nRecord)) !=
        static_cast<ssize_t>(sizeof record))
        return false;
    if (record.nLease == 0) {
        m_free.push_back(nRecord);
        return true;
    }
    if (record.source[cSourceSize - 1] != '\0')
        return false;
    Entry entry;
    entry.nRecord = nRecord;
    entry.bWritten = true;
    bool bHasPlace = false;
    for (int i = 0; i < 2; ++i) {
        const Place& place = record.places[i];
        const NotificationNumber number{place.nBoot, place.nCount};
        if (place.nCheck == checkOf(record, place) && (!bHasPlace || number > entry.last)) {
            bHasPlace = true;
            entry.last = number;
            entry.nNewest = i;
        }
    }
    m_entries[{record.nLease, record.source}] = entry;
    return bHasPlace;
}

void Journal::begin(const std::string& sPath) {
    char magic[cRecordSize] = {};
    std::memcpy(magic, cMagic, sizeof cMagic);
    if (!writeAt(m_file.number(), magic, sizeof magic, 0))
        failWith(sPath);
}

Journal::Entry& Journal::place(const Key& key) {
    Entry entry;
    if (m_free.empty()) {
        entry.nRecord = m_nRecords++;
    } else {
        entry.nRecord = m_free.back();
        m_free.pop_back();
    }
    return m_entries.emplace(key, entry).first->second;
}

} // namespace VornRelay
