// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORTEXPORT_H
#define VORNSUPPORTEXPORT_H

/** @file
 *  Marks what `libvornsupt.so.1` exports; everything else in it is hidden.
 */

/** Exports a class or function. */
#define VORNSUPT_API __attribute__((visibility("default")))

/** Keeps a member of an exported class inside the library. */
#define VORNSUPT_LOCAL __attribute__((visibility("hidden")))

#endif
