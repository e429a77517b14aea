// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_FILEEVENT_H
#define EXAMPLES_FILEEVENT_H

#include <VornConnection.h>
#include <VornNotification.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include <sys/inotify.h>

namespace Example {

using VornNet::VornConnection;
using VornNet::VornNotification;

// What service and client have agreed on. The service handshake says what the client wants. The callback
// address, the callback id and the directory follow, and the service answers with the acknowledgement or the
// error token.
constexpr const char* cPipeName = "dirwatch";
constexpr const char* cWatchService = "watch";
constexpr const char* cUnwatchService = "unwatch";

/** Something that happened to a file in the watched directory. The service numbers its events from 1. */
class FileEvent : public VornNotification {
public:
    FileEvent(int nId, std::uint32_t nMask, std::uintmax_t nSize, const std::string& sName)
        : VornNotification(nId), m_nMask(nMask), m_nSize(nSize), m_sName(sName) {}

    void write(VornConnection& connection) const {
        connection.transfer(getId());
        connection.transfer(static_cast<int>(m_nMask));
        // As text: only the low 32 bits of a long are sent, and a file may be larger.
        connection.transfer(std::to_string(m_nSize));
        connection.transfer(m_sName);
    }

    static FileEvent read(VornConnection& connection) {
        const int nId = connection.receiveInt();
        const auto nMask = static_cast<std::uint32_t>(connection.receiveInt());
        const std::string sSize = connection.receiveString();
        return {nId, nMask, std::strtoull(sSize.c_str(), nullptr, 10), connection.receiveString()};
    }

    const char* verb() const {
        return (m_nMask & IN_CLOSE_WRITE) != 0  ? "written"
               : (m_nMask & IN_MOVED_TO) != 0   ? "moved in"
               : (m_nMask & IN_MOVED_FROM) != 0 ? "moved out"
                                                : "deleted";
    }

    std::uintmax_t size() const { return m_nSize; }

    const std::string& name() const { return m_sName; }

private:
    std::uint32_t m_nMask;
    std::uintmax_t m_nSize;
    std::string m_sName;
};

} // namespace Example

#endif
