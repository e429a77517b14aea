// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_JOURNAL_H
#define VORNRELAY_JOURNAL_H

#include "NotificationNumber.h"

#include <OwnedDescriptor.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace VornRelay {

/**
 * Remembers, for each lease and source host, the last notification that was delivered; also over a kill.
 *
 * It is what keeps a notification from being delivered twice: engines forget what they have handed out when
 * they are killed. A record has two places, of which the older one is written, each with a check sum; so a
 * kill in the middle of writing leaves the other one. It is not synced: a power cut may cost the last few,
 * which then come twice.
 *
 * Thread-safety: none. Blocking: short writes to a file. Ownership: the file is the journal's. Signals: none
 * raised. Errors: std::system_error from the constructor; a file that is damaged is put aside.
 */
class Journal {
public:
    /** Opens the file or creates it. A damaged one gets the ending ".damaged", and the journal begins empty.
     */
    explicit Journal(const std::string& sPath);

    /** @return whether there is a file that is no journal, as far as its beginning and its size tell. */
    static bool isDamaged(const std::string& sPath);

    /** @return whether a damaged file was put aside. */
    bool wasDamaged() const { return m_bWasDamaged; }

    /** @return the last that was noted, {0, 0} when there is none. */
    NotificationNumber last(std::uint32_t nLease, const std::string& sSource) const;

    /** Notes a number. @return whether it is in the file; in memory it is in any case */
    bool note(std::uint32_t nLease, const std::string& sSource, const NotificationNumber& number);

    /** Forgets a lease, whose places others get. */
    void forget(std::uint32_t nLease);

    /** @return the leases of which something is noted. */
    std::set<std::uint32_t> leases() const;

    std::size_t size() const { return m_entries.size(); }

private:
    using Key = std::pair<std::uint32_t, std::string>;

    struct Entry {
        NotificationNumber last;
        std::size_t nRecord = 0;
        int nNewest = 0;       // of the two places
        bool bWritten = false; // the record, of which one place is enough from then on
    };

    bool load(const std::string& sPath);
    bool loadRecord(std::size_t nRecord);
    void begin(const std::string& sPath);
    Entry& place(const Key& key);

    VornNet::OwnedDescriptor m_file;
    std::map<Key, Entry> m_entries;
    std::vector<std::size_t> m_free;
    std::size_t m_nRecords = 0;
    bool m_bWasDamaged = false;
};

} // namespace VornRelay

#endif
