// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Address.h"
#include "Command.h"
#include "ExitStatus.h"
#include "LibraryRecords.h"
#include "Output.h"

#include <VornUtilities.h>

namespace VornTool {

namespace {

struct ResolveOptions : CommonOptions {
    std::string query;
};

int resolveName(const ResolveOptions& options) {
    const std::vector<std::string> system = addressesOf(options.query);
    std::vector<VornSupport::VornString> library;
    VornSupport::VornString message;
    VornNet::VornNameToAddressImpl(options.query, library, message);
    const bool differs = system != library;
    if (options.json) {
        Output::json({{"query", options.query},
                      {"kind", "name"},
                      {"addresses", system},
                      {"library", library},
                      {"differs", differs}});
    } else {
        Output::line("addresses  " + (system.empty() ? "nothing" : joined(system, " ")));
        // The library's function drops what follows a zero byte: 10.0.5.1 becomes 10.0.0.0.
        if (differs)
            Output::line("library    " + (library.empty() ? "nothing" : joined(library, " ")) +
                         "  (VornNameToAddressImpl reads every byte after a zero byte as zero)");
    }
    if (!system.empty())
        return exitDone;
    Output::error("there is no host called " + quoted(options.query));
    return exitUnreachable;
}

int resolveAddress(const ResolveOptions& options) {
    VornSupport::VornString name;
    VornSupport::VornString message;
    VornNet::VornAddressToNameImpl(options.query, name, message);
    if (options.json)
        Output::json({{"query", options.query}, {"kind", "address"}, {"name", name}});
    else if (!name.empty())
        Output::line("name       " + printable(name));
    if (!name.empty())
        return exitDone;
    Output::error("the address " + options.query + " has no name");
    return exitUnreachable;
}

int runResolve(ResolveOptions& options) {
    const LibraryRecords records(options.logLevel);
    const std::string& query = options.query;
    if (isIPv6(query))
        throw ToolError(exitUsage, quoted(query) + " is an IPv6 address: the library has IPv4 only");
    if (isName(query))
        return resolveName(options);
    if (!isDotted(query))
        throw ToolError(exitUsage, quoted(query) + " is neither a host name nor a dotted IPv4 address");
    return resolveAddress(options);
}

} // namespace

void addResolve(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<ResolveOptions>();
    CLI::App* command =
        addCommand(app, "resolve", "Look up a host's addresses, or an address's host", *options);
    command->add_option("NAME", options->query, "Host name or dotted IPv4 address")->required();
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runResolve);
}

} // namespace VornTool
