// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_LEASETABLE_H
#define VORNRELAY_LEASETABLE_H

#include <OwnedDescriptor.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>

namespace VornRelay {

/** An address and a callback id that other hosts know by a number. */
struct Lease {
    std::uint32_t nNumber = 0;
    std::string sName;    ///< empty: anonymous, it ends with the process
    uid_t user = 0;       ///< who has asked for it
    std::string sAddress; ///< the sink's own, such as "pipe:quorax1f3a"
    std::int32_t nHandle = 0;
    pid_t process = 0;        ///< who has asked for it; 0 when it cannot be seen from here
    std::uint64_t nStart = 0; ///< when that process has started, for its number may come again

    bool isNamed() const { return !sName.empty(); }
};

/** Why a lease is not granted. */
class LeaseRefused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** @return when a process has started, in the kernel's ticks; 0 when there is none. @throws std::system_error
 * when that cannot be known, since there is no descriptor */
std::uint64_t startOfProcess(pid_t process);

/**
 * The leases of this host, in a file to which each change is appended, and synced before it is told.
 *
 * Numbers are random, since whoever may write to a relay's pipe and knows a number may notify. The highest
 * bit says that the lease has a name. Numbers below 65,536 are never given: they stand for TCP ports. The
 * numbers of names that have ended are remembered, for services that have not heard of it may go on sending
 * to them.
 *
 * Thread-safety: none. Blocking: until a change is on disk. Ownership: the file is the table's. Signals: none
 * raised. Errors: std::system_error; LeaseRefused for a name of another user.
 */
class LeaseTable {
public:
    /** Reads the file, leaves out a last line that was cut off, and writes it anew without what has ended. */
    explicit LeaseTable(const std::string& sPath);

    /** @return how many lines could not be read; one is no more than a power cut. */
    std::size_t damagedLines() const { return m_nDamaged; }

    const std::map<std::uint32_t, Lease>& all() const { return m_leases; }

    /** @return the numbers of names that have ended, the newest last. */
    const std::vector<std::uint32_t>& endedNames() const { return m_endedNames; }

    /** @return the lease, null when there is none. */
    const Lease* find(std::uint32_t nNumber) const;

    /** @return the lease of that name, null when there is none. */
    const Lease* find(const std::string& sName) const;

    /** Gives a new number, or the one that the name has already, which then leads to the new address. */
    const Lease& grant(Lease lease);

    /** Ends a lease. Its number is not given again, but by a chance of 1 in 2^31. */
    void end(std::uint32_t nNumber);

    /** So many are remembered when the file is read: each one costs the engine a consumer. */
    static constexpr std::size_t cMostEndedNames = 1000;

    static bool isNamedNumber(std::uint32_t nNumber) { return (nNumber & cNamed) != 0; }

    /** @return whether it is no lease, but a TCP port. */
    static bool isPort(std::uint32_t nNumber) { return nNumber < cPorts; }

private:
    static constexpr std::uint32_t cNamed = 0x80000000U;
    static constexpr std::uint32_t cPorts = 0x10000U;

    void load(const std::string& sContent);
    bool loadLine(const std::string& sLine);
    void remove(std::uint32_t nNumber);
    std::uint32_t newNumber(bool bNamed) const;
    void append(const std::string& sLine);

    VornNet::OwnedDescriptor m_file;
    std::string m_sPath;
    std::map<std::uint32_t, Lease> m_leases;
    std::map<std::string, std::uint32_t> m_names;
    std::vector<std::uint32_t> m_endedNames;
    std::size_t m_nDamaged = 0;
};

} // namespace VornRelay

#endif
