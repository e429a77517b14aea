// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Commands.h"
#include "NatsAdministration.h"

#include <ExitStatus.h>
#include <VornException.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <system_error>

#include <CLI/CLI.hpp>

namespace {

using namespace VornRelay;

using Runner = std::function<int()>;

/** What the subcommands' options are read into. */
struct Options {
    std::string sSettingsFile = "/etc/vornnet/relay.conf";
    bool bJson = false;
    std::string sName;
    std::string sAddress;
    int nHandle = 0;
    std::string sHost;
    std::vector<std::string> sendTo{"*"};
    std::int64_t nMegabytes = 0; // 0: as it is
    std::int64_t nMessages = 0;
    std::int64_t nHours = 0;
    int nReplicas = 0;
    std::string sConsumer = "own";
    HostRights rights;
    std::uint64_t nPosition = 0; // 0: all
    std::int64_t nLease = 0;
    std::vector<std::string> values;
    std::string sId;

    RelaySettings settings() const { return RelaySettings::read(sSettingsFile); }
};

CLI::App* add(CLI::App& parent, const char* szName, const char* szText, Runner& runner, Runner run) {
    CLI::App* command = parent.add_subcommand(szName, szText);
    command->callback([&runner, run = std::move(run)] { runner = run; });
    return command;
}

void addJson(CLI::App* command, Options& options) {
    command->add_flag("--json", options.bJson, "Print JSON, one object per line");
}

void addLocal(CLI::App& app, Options& options, Runner& runner) {
    add(app, "run", "Work as this host's relay, in the foreground", runner,
        [&] { return runRelay(options.sSettingsFile); });
    add(app, "doctor",
        "Look for what keeps the relay from working; exit status 1 for warnings, 2 for problems", runner,
        [&] { return checkHost(options.sSettingsFile); });
    addJson(add(app, "status", "Print how this host's relay is", runner,
                [&] { return printStatus(options.bJson); }),
            options);
    addJson(add(app, "leases", "Print the leases of this host, without their numbers", runner,
                [&] { return printLeases(options.bJson); }),
            options);
    CLI::App* lease =
        add(app, "lease", "Take a named lease, and print the address and the id to publish", runner,
            [&] { return takeLease(options.sName, options.sAddress, options.nHandle); });
    lease->add_option("NAME", options.sName, "Name that the lease is kept under")->required();
    lease->add_option("ADDRESS", options.sAddress, "The sink's callback address, pipe:NAME")->required();
    lease->add_option("HANDLE", options.nHandle, "The callback's id")->required();
    add(app, "release", "End a named lease", runner, [&] { return releaseLease(options.sName); })
        ->add_option("NAME", options.sName, "Name of the lease")
        ->required();
    CLI::App* notify = add(app, "notify", "Notify a lease of another host, without a service", runner, [&] {
        const auto nLease = static_cast<std::uint32_t>(options.nLease);
        return options.sId.empty()
                   ? notifyLease(options.sHost, nLease, options.values)
                   : notifyLeaseOnce(options.settings(), options.sHost, nLease, options.values, options.sId);
    });
    notify->add_option("HOST", options.sHost, "The host of the sink")->required();
    notify->add_option("LEASE", options.nLease, "The number that lease has printed")->required();
    notify->add_option(
        "VALUES", options.values,
        "What the callback reads: int:N short:N long:N bool:true|false string:TEXT line:TEXT; a "
        "number alone is a long, such as the notification's id");
    notify->add_option("--id", options.sId,
                       "Identity of the message: one with the same within two minutes is not stored again");
}

void addHosts(CLI::App& app, Options& options, Runner& runner) {
    CLI::App* hosts = app.add_subcommand("hosts", "The hosts that can be notified; for the administrator");
    hosts->require_subcommand(1);
    CLI::App* adding =
        add(*hosts, "add", "Create a host's stream or change it, and print its permissions for the server",
            runner, [&] {
                return addHost(options.settings(), options.sHost, options.sendTo, options.nMegabytes,
                               options.nMessages, options.nHours, options.nReplicas,
                               options.sConsumer == "fixed", options.rights);
            });
    adding->add_option("HOST", options.sHost, "Name of the host")->required();
    adding->add_option("--send-to", options.sendTo,
                       "Hosts that it may notify; * for all, which is the default; its own name for none");
    adding
        ->add_option("--megabytes", options.nMegabytes, "Most that may wait for the host; a new one has 1024")
        ->check(CLI::Range(1, 1 << 20));
    adding
        ->add_option("--messages", options.nMessages,
                     "Most notifications that may wait for it; 1024 for each megabyte")
        ->check(CLI::PositiveNumber);
    adding->add_option("--hours", options.nHours, "Longest that it may wait; a new one has 168")
        ->check(CLI::Range(1, 24 * 365));
    adding->add_option("--replicas", options.nReplicas, "Servers that keep a copy; a new one has 1")
        ->check(CLI::Range(1, 5));
    adding
        ->add_option(
            "--consumer", options.sConsumer,
            "own: the host creates its consumers; fixed: they are created now, for a host that is not "
            "trusted")
        ->check(CLI::IsMember({"own", "fixed"}));
    adding->add_flag("--topics", options.rights.bTopics, "It has topics: create the stream that keeps them");
    adding->add_option("--follow", options.rights.follow, "Hosts whose topics it may follow");
    adding->add_flag("--offer", options.rights.bOffer, "Its services may be reached from other hosts");
    adding->add_option("--reach", options.rights.reach,
                       "Services of other hosts that it may reach, NAME@HOST");
    add(*hosts, "remove", "Remove a host's stream, and all that waits in it", runner,
        [&] { return removeHost(options.settings(), options.sHost); })
        ->add_option("HOST", options.sHost, "Name of the host")
        ->required();
    addJson(add(*hosts, "list", "Print what waits for each host", runner,
                [&] { return listHosts(options.settings(), options.bJson); }),
            options);
}

void addDead(CLI::App& app, Options& options, Runner& runner) {
    CLI::App* dead =
        app.add_subcommand("dead", "Notifications that could not be delivered; for the administrator");
    dead->require_subcommand(1);
    addJson(add(*dead, "list", "Print all of them", runner,
                [&] { return listDeadLetters(options.settings(), options.bJson); }),
            options);
    using Action = int (*)(const RelaySettings&, std::uint64_t);
    const std::tuple<const char*, const char*, Action> actions[] = {
        {"show", "Print one with its content", &showDeadLetter},
        {"resend", "Send one again through this host's relay, and drop it", &resendDeadLetter}};
    for (const auto& [szName, szText, action] : actions)
        add(*dead, szName, szText, runner,
            [&options, action = action] { return action(options.settings(), options.nPosition); })
            ->add_option("NUMBER", options.nPosition, "As printed by dead list")
            ->required();
    add(*dead, "drop", "Remove one, or all", runner, [&] {
        return options.nPosition == 0 ? dropDeadLetters(options.settings())
                                      : dropDeadLetter(options.settings(), options.nPosition);
    })->add_option("NUMBER", options.nPosition, "As printed by dead list; without it all are removed");
}

void addRedirect(CLI::App& app, Options& options, Runner& runner) {
    CLI::App* redirect = app.add_subcommand(
        "redirect", "Lead connections to the redirect-addresses of other hosts to the relay; for root");
    redirect->require_subcommand(1);
    add(*redirect, "on", "Set up address, routes and the rule of the packet filter", runner,
        [&] { return VornRelay::redirect(options.settings(), true); });
    add(*redirect, "off", "Remove them", runner,
        [&] { return VornRelay::redirect(options.settings(), false); });
}

int runCommand(const Runner& runner) {
    try {
        return runner();
    } catch (const SettingsError& error) {
        std::fprintf(stderr, "vornnet relay: %s\n", error.what());
        return exitUsage;
    } catch (const VornTool::ToolError& error) {
        std::fprintf(stderr, "vornnet relay: %s\n", error.what());
        return error.status();
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "vornnet relay: %s\n", error.what());
        return exitUsage;
    } catch (const AdministrationError& error) {
        std::fprintf(stderr, "vornnet relay: %s\n", error.what());
        return error.code() == 0 ? exitUnreachable : exitRefused;
    } catch (const VornSupport::VornException& error) {
        std::fprintf(stderr, "vornnet relay: %s (%ld)\n", error.getText().c_str(),
                     static_cast<long>(error.getCode()));
        return exitUnreachable;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vornnet relay: %s\n", error.what());
        return exitFailed;
    }
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Carries notifications between hosts, through NATS with JetStream", "vornnet relay"};
    app.set_version_flag("--version", "vornnet " VORNNET_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    Options options;
    Runner runner;
    app.add_option("--config", options.sSettingsFile, "Configuration file")
        ->type_name("FILE")
        ->capture_default_str();
    addLocal(app, options, runner);
    addHosts(app, options, runner);
    addDead(app, options, runner);
    addRedirect(app, options, runner);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitDone : exitUsage;
    }
    return runCommand(runner);
}
