// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_NEVERDESTROYED_H
#define VORNSUPPORT_NEVERDESTROYED_H

namespace VornSupport {

/**
 * Holds a static object that is never destroyed: threads and other static objects may use it until the
 * process ends. Not installed.
 */
template <typename T>
union NeverDestroyed {
    constexpr NeverDestroyed() : object() {}

    ~NeverDestroyed() {}

    T object;
};

} // namespace VornSupport

#endif
