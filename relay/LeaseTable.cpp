// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeaseTable.h"

#include "StateFile.h"

#include <CallbackEndpoint.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/random.h>
#include <unistd.h>

namespace VornRelay {

namespace {

using Json = nlohmann::json;

std::string lineOf(const Lease& lease) {
    return Json{{"lease", lease.nNumber},    {"name", lease.sName},     {"user", lease.user},
                {"address", lease.sAddress}, {"handle", lease.nHandle}, {"process", lease.process},
                {"start", lease.nStart}}
               .dump() +
           "\n";
}

std::string endLineOf(std::uint32_t nNumber) {
    return Json{{"end", nNumber}}.dump() + "\n";
}

bool isPipe(const std::string& sAddress) {
    const auto endpoint = VornNet::CallbackEndpoint::parse(sAddress.c_str());
    return endpoint && endpoint->kind() == VornNet::CallbackEndpoint::Kind::pipe;
}

} // namespace

std::uint64_t startOfProcess(pid_t process) {
    const std::string sLine = readState("/proc/" + std::to_string(process) + "/stat");
    // The name of the program comes second, in brackets, and may contain anything.
    const std::size_t nBracket = sLine.rfind(')');
    if (nBracket == std::string::npos)
        return 0;
    std::istringstream fields(sLine.substr(nBracket + 1));
    std::string sState;
    fields >> sState;
    if (sState == "Z" || sState == "X")
        return 0; // it has ended, and only its parent has not heard of it yet
    constexpr int cFieldsBetween = 18;
    std::string sField;
    for (int i = 0; i < cFieldsBetween; ++i)
        fields >> sField;
    std::uint64_t nStart = 0;
    fields >> nStart;
    return nStart;
}

LeaseTable::LeaseTable(const std::string& sPath) : m_sPath(sPath) {
    load(readState(sPath));
    std::string sContent;
    for (const std::uint32_t nNumber : m_endedNames)
        sContent += endLineOf(nNumber);
    for (const auto& [nNumber, lease] : m_leases)
        sContent += lineOf(lease);
    replaceState(sPath, sContent);
    m_file.reset(::open(sPath.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    if (!m_file.isOpen())
        failWith(sPath);
}

const Lease* LeaseTable::find(std::uint32_t nNumber) const {
    const auto found = m_leases.find(nNumber);
    return found == m_leases.end() ? nullptr : &found->second;
}

const Lease* LeaseTable::find(const std::string& sName) const {
    const auto found = m_names.find(sName);
    return found == m_names.end() ? nullptr : find(found->second);
}

const Lease& LeaseTable::grant(Lease lease) {
    const Lease* pOwn = lease.isNamed() ? find(lease.sName) : nullptr;
    if (pOwn != nullptr && pOwn->user != lease.user)
        throw LeaseRefused("the name belongs to another user");
    lease.nNumber = pOwn != nullptr ? pOwn->nNumber : newNumber(lease.isNamed());
    append(lineOf(lease));
    if (lease.isNamed())
        m_names[lease.sName] = lease.nNumber;
    return m_leases[lease.nNumber] = lease;
}

void LeaseTable::end(std::uint32_t nNumber) {
    if (!m_leases.contains(nNumber))
        return;
    append(endLineOf(nNumber));
    remove(nNumber);
}

void LeaseTable::load(const std::string& sContent) {
    std::istringstream lines(sContent);
    for (std::string sLine; std::getline(lines, sLine);) {
        if (!loadLine(sLine))
            ++m_nDamaged;
    }
    if (m_endedNames.size() > cMostEndedNames)
        m_endedNames.erase(m_endedNames.begin(),
                           m_endedNames.end() - static_cast<std::ptrdiff_t>(cMostEndedNames));
}

bool LeaseTable::loadLine(const std::string& sLine) try {
    const Json line = Json::parse(sLine);
    if (line.contains("end")) {
        remove(line["end"].get<std::uint32_t>());
        return true;
    }
    Lease lease;
    lease.nNumber = line.at("lease").get<std::uint32_t>();
    lease.sName = line.at("name").get<std::string>();
    lease.user = line.at("user").get<uid_t>();
    lease.sAddress = line.at("address").get<std::string>();
    lease.nHandle = line.at("handle").get<std::int32_t>();
    lease.process = line.at("process").get<pid_t>();
    lease.nStart = line.at("start").get<std::uint64_t>();
    if (!isPipe(lease.sAddress))
        return false;
    if (lease.isNamed())
        m_names[lease.sName] = lease.nNumber;
    m_leases[lease.nNumber] = lease;
    return true;

} catch (const Json::exception&) {

    return false;
}

void LeaseTable::remove(std::uint32_t nNumber) {
    const auto ended = m_leases.extract(nNumber);
    if (!ended.empty())
        m_names.erase(ended.mapped().sName);
    if (isNamedNumber(nNumber))
        m_endedNames.push_back(nNumber);
}

std::uint32_t LeaseTable::newNumber(bool bNamed) const {
    for (;;) {
        std::uint32_t nNumber = 0;
        if (::getrandom(&nNumber, sizeof nNumber, 0) != sizeof nNumber)
            failWith("getrandom");
        nNumber = bNamed ? nNumber | cNamed : nNumber & ~cNamed;
        if ((nNumber & ~cNamed) >= cPorts && !m_leases.contains(nNumber))
            return nNumber;
    }
}

void LeaseTable::append(const std::string& sLine) {
    const ssize_t count = ::write(m_file.number(), sLine.data(), sLine.size());
    if (count == static_cast<ssize_t>(sLine.size()) && ::fdatasync(m_file.number()) == 0)
        return;
    const int nError = count == -1 ? errno : ENOSPC;
    // What is cut off must not be joined by the next line.
    if (count > 0 && ::write(m_file.number(), "\n", 1) != 1)
        errno = ENOSPC;
    errno = nError;
    failWith(m_sPath);
}

} // namespace VornRelay
