// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_MODULEINSTANCES_H
#define VORNTEST_MODULEINSTANCES_H

/**
 * @file
 * What the plug-in offers that has the library's module class once more.
 */
extern "C" {

/**
 * Makes a module and destroys it again.
 *
 * @param start the counter that it finds when it is made
 * @param more  what is added to the counter before it is destroyed
 * @param tell  is told what the module calls, and its counter at both ends
 */
void liveAsModule(bool autoInit, int start, int more, void (*tell)(const char* event));
}

#endif
