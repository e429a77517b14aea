// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_DIRECTORYWATCH_H
#define EXAMPLES_DIRECTORYWATCH_H

#include "FileEvent.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <system_error>

#include <sys/inotify.h>
#include <unistd.h>

namespace Example {

/** Reports what happens to the files of one directory, using inotify(7). */
class DirectoryWatch {
public:
    explicit DirectoryWatch(const std::filesystem::path& directory)
        : m_directory(directory), m_fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        // A file is reported when it is complete, so its creation is not watched.
        constexpr std::uint32_t cMask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                                        IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
        if (m_fd == -1 || inotify_add_watch(m_fd, directory.c_str(), cMask) == -1) {
            const std::error_code error(errno, std::generic_category());
            close(m_fd);
            throw std::system_error(error, directory.string());
        }
    }

    ~DirectoryWatch() { close(m_fd); }

    DirectoryWatch(const DirectoryWatch&) = delete;
    DirectoryWatch& operator=(const DirectoryWatch&) = delete;

    /** @return the descriptor for poll(2) */
    int handle() const { return m_fd; }

    /** Appends what has happened since the last call. @return false when the directory itself is gone */
    bool readInto(std::deque<FileEvent>& events) {
        alignas(inotify_event) std::array<char, 16384> buffer;
        const ssize_t size = ::read(m_fd, buffer.data(), buffer.size());
        for (ssize_t at = 0; at < size;) {
            const auto* entry = reinterpret_cast<const inotify_event*>(&buffer[static_cast<size_t>(at)]);
            at += static_cast<ssize_t>(sizeof(inotify_event) + entry->len);
            if ((entry->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0)
                return false;
            if ((entry->mask & IN_Q_OVERFLOW) != 0)
                std::fprintf(stderr, "service: the kernel's queue of events was full; events are lost\n");
            else
                events.emplace_back(++m_nLastId, entry->mask, sizeOf(entry->name), entry->name);
        }
        return true;
    }

private:
    std::uintmax_t sizeOf(const char* sName) const {
        std::error_code error;
        const std::uintmax_t nSize = std::filesystem::file_size(m_directory / sName, error);
        return error ? 0 : nSize; // the file is gone, or is not a regular file
    }

    const std::filesystem::path m_directory;
    const int m_fd;
    int m_nLastId = 0;
};

} // namespace Example

#endif
