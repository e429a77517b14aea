// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_OWNEDDESCRIPTOR_H
#define VORNNOTIFY_OWNEDDESCRIPTOR_H

#include <StandardStreams.h>
#include <SystemCalls.h>
#include <VornNetExport.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace VornNet {

/** Owns a descriptor, or none (-1), off the standard streams. Whoever opens one asks for close-on-exec in the
 * same call. */
class OwnedDescriptor {
public:
    OwnedDescriptor() = default;

    explicit OwnedDescriptor(int number) : m_number(keepOffStandardStreams(number)) {}

    OwnedDescriptor(OwnedDescriptor&& other) noexcept : m_number(other.release()) {}

    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }

    ~OwnedDescriptor() { reset(); }

    /** Owns what a system call has just opened. @throws std::system_error with errno when it is -1 */
    static OwnedDescriptor opened(int number) {
        if (number == -1)
            throw std::system_error(errno, std::generic_category());
        return OwnedDescriptor(number);
    }

    int number() const { return m_number; }

    bool isOpen() const { return m_number != -1; }

    /** Hands the descriptor on: it is the caller's from now on. */
    int release() { return std::exchange(m_number, -1); }

    /** Closes what is owned and takes over @p number. */
    void reset(int number = -1) {
        const int previous = std::exchange(m_number, keepOffStandardStreams(number));
        if (previous != -1)
            System::close(previous);
    }

private:
    int m_number = -1;
};

} // namespace VornNet

#endif
