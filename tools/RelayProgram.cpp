// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayProgram.h"

#include "ExitStatus.h"
#include "Output.h"

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace VornTool {

int runRelayProgram(char** arguments) {
    std::string name = "vornnet-relay";
    std::vector<char*> words{name.data()};
    for (; *arguments != nullptr; ++arguments)
        words.push_back(*arguments);
    words.push_back(nullptr);
    std::error_code ignored;
    const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe", ignored);
    ::execv((own.parent_path() / name).c_str(), words.data());
    ::execvp(name.c_str(), words.data());
    Output::setCommand("relay");
    Output::error("vornnet-relay is not installed");
    return exitFailed;
}

} // namespace VornTool
