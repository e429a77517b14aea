// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFYEXPORT_H
#define VORNNOTIFYEXPORT_H

/** @file
 *  Marks what `libvornnotify.so.1` exports.
 */

/** Exports a class or function. */
#define VORNNOTIFY_API __attribute__((visibility("default")))

/** Keeps a member of an exported class inside the library. */
#define VORNNOTIFY_LOCAL __attribute__((visibility("hidden")))

#endif
