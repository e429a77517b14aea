// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_SHAREDFIELD_H
#define VORNSUPPORT_SHAREDFIELD_H

#include <type_traits>

namespace VornSupport {

/**
 * Reads a field that another thread may be writing, and with it what that thread wrote before. The types of
 * such fields belong to the binary interface, so they cannot be std::atomic. Not installed.
 */
template <typename T>
T readShared(const T& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE); // std::atomic_ref takes no field that is const
}

/** Writes a field that another thread may be reading. */
template <typename T>
void writeShared(T& field, std::type_identity_t<T> value) {
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

} // namespace VornSupport

#endif
