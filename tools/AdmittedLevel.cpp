// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AdmittedLevel.h"

#include "ExitStatus.h"

#include <cerrno>
#include <cstring>

#include <sys/uio.h>

namespace VornTool {

AdmittedLevel::AdmittedLevel(pid_t process, const TracedLibrary& library, int level)
    : m_process(process), m_address(library.addressOf("_ZN11VornSupport11VornLogging16s_nAdmittedLevelE")),
      m_raised(level) {
    m_isRaised = transfer(true, m_before, m_address) && m_before < level;
    if (m_isRaised && !transfer(false, level, m_address))
        throw ToolError(exitFailed, std::string("cannot raise the level: ") + std::strerror(errno));
}

AdmittedLevel::~AdmittedLevel() {
    restore();
}

void AdmittedLevel::restore() const {
    int level = 0;
    int before = m_before;
    if (m_isRaised && transfer(true, level, m_address) && level == m_raised)
        transfer(false, before, m_address);
}

bool AdmittedLevel::transfer(bool isRead, int& value, std::uint64_t address) const {
    iovec here{&value, sizeof value};
    iovec there{reinterpret_cast<void*>(address), sizeof value};
    const ssize_t count = isRead ? ::process_vm_readv(m_process, &here, 1, &there, 1, 0)
                                 : ::process_vm_writev(m_process, &here, 1, &there, 1, 0);
    return count == sizeof value;
}

} // namespace VornTool
