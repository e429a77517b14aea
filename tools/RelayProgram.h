// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_RELAYPROGRAM_H
#define VORNTOOL_RELAYPROGRAM_H

namespace VornTool {

/**
 * Becomes the program `vornnet-relay`, which is installed for itself, since it alone needs the engine's
 * client library: the one beside this program, or the one in PATH.
 * @param arguments the words after "relay", and a null pointer
 * @return the exit status when there is no such program
 */
int runRelayProgram(char** arguments);

} // namespace VornTool

#endif
