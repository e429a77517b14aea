// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNETEXPORT_H
#define VORNNETEXPORT_H

/** @file
 *  Marks what `libvornnet.so.1` exports, and lets namespace VornNet use the support library's names.
 */

/** Exports a class or function. */
#define VORNNET_API __attribute__((visibility("default")))

/** Keeps a member of an exported class inside the library. */
#define VORNNET_LOCAL __attribute__((visibility("hidden")))

namespace VornSupport {}

/** The networking library. */
namespace VornNet {
using namespace VornSupport;
}

#endif
