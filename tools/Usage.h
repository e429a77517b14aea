// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTOOL_USAGE_H
#define VORNTOOL_USAGE_H

#include <string>

#include <CLI/CLI.hpp>

namespace VornTool {

/** @return what is wrong with the command line: what was typed, and the nearest that there is. */
std::string describeUsageError(const CLI::App& app, const CLI::ParseError& error);

/** @return a check that a number is at least 1. */
CLI::Validator atLeastOne();

} // namespace VornTool

#endif
