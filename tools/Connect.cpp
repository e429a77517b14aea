// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Address.h"
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "Values.h"

#include <VornException.h>
#include <VornUDPSocketConnection.h>

#include <cerrno>
#include <chrono>

namespace VornTool {

using VornNet::VornConnection;
using VornNet::VornUDPSocketConnection;
using VornSupport::VornException;
using VornSupport::VornSmartPointer;

namespace {

struct ConnectOptions : CommonOptions {
    std::string address;
    std::vector<std::string> values;
    std::string service;
    std::string expect;
    double timeout = 0;
};

/** What has come of the conversation so far. */
struct Conversation {
    std::vector<Value> received;
    ExitStatus status = exitDone;
    std::string error;
};

void requirePossible(const Address& address, const ConnectOptions& options) {
    if (address.kind == Address::Kind::Udp && (!options.service.empty() || !options.expect.empty()))
        throw ToolError(exitUsage, "nothing comes back over udp: --service and --expect are not possible");
    if (options.service.find_first_of("\r\n") != std::string::npos)
        throw ToolError(exitUsage, "the name of a service is one line");
}

void transmit(VornConnection& connection) {
    auto* datagram = dynamic_cast<VornUDPSocketConnection*>(&connection);
    if (datagram != nullptr && !datagram->transmit())
        throw ToolError(exitFailed, "the datagram could not be sent; --log-level 1 tells why");
}

void receive(VornConnection& connection, const std::vector<ValueType>& types, Conversation& conversation) {
    for (const ValueType type : types) {
        const Value value = receiveValue(connection, type);
        conversation.received.push_back(value);
        if (type == ValueType::Token && value.number != 0) {
            conversation.status = exitRefused;
            conversation.error = "the server answered with an error";
        }
    }
}

void converse(VornConnection& connection, const std::vector<Value>& values,
              const std::vector<ValueType>& types, Conversation& conversation) {
    bool established = false;
    try {
        connection.establish();
        established = true;
        for (const Value& value : values)
            sendValue(connection, value);
        transmit(connection);
        receive(connection, types, conversation);
    } catch (const VornException& error) {
        conversation.error = describeFailure(error.getCode(), error.getText());
        if (isServiceRefused(error.getCode(), error.getText()))
            conversation.error = "the peer refused the service " + quoted(connection.getServiceName()) +
                                 ", or is no such service: " + conversation.error;
        // An end in the middle of the answer: the server was there, and has said less than was expected.
        const bool cutShort = established && error.getCode() == ENOTCONN;
        conversation.status = cutShort ? exitIncomplete : statusOfFailure(error.getCode(), error.getText());
    } catch (const ToolError& error) {
        conversation.error = error.what();
        conversation.status = error.status();
    }
}

void print(const ConnectOptions& options, const std::vector<Value>& values,
           const Conversation& conversation) {
    if (options.json) {
        Json object = {{"address", options.address},
                       {"service", options.service},
                       {"sent", toJson(values)},
                       {"received", toJson(conversation.received)}};
        if (!conversation.error.empty())
            object["error"] = conversation.error;
        Output::json(object);
    } else {
        for (const Value& value : conversation.received)
            Output::line(describe(value));
    }
    if (!conversation.error.empty())
        Output::error(conversation.error);
}

int runConnect(ConnectOptions& options) {
    const Address address = parseAddress(options.address);
    const std::vector<Value> values = parseValues(options.values);
    const std::vector<ValueType> types = parseTypes(options.expect);
    requirePossible(address, options);
    requireKnownHost(address);
    const LibraryRecords records(options.logLevel);
    const Interruption interruption(std::chrono::milliseconds(100),
                                    std::chrono::milliseconds(static_cast<long>(options.timeout * 1000)));
    Conversation conversation;
    VornSmartPointer<VornConnection> spConnection = makeConnection(address);
    spConnection->setServiceName(options.service);
    converse(*spConnection, values, types, conversation);
    print(options, values, conversation);
    return interruption.isRequested() ? interruption.status() : static_cast<int>(conversation.status);
}

} // namespace

void addConnect(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<ConnectOptions>();
    CLI::App* command =
        addCommand(app, "connect", "Connect to a server, send values and read its answer", *options);
    command->add_option("ADDRESS", options->address, std::string("Address of the server: ") + addressHelp)
        ->required();
    command->add_option("VALUE", options->values, std::string("What to send. ") + valueHelp);
    command->add_option("--service", options->service, "Ask for the service NAME first")->type_name("NAME");
    command->add_option("--expect", options->expect, std::string("What to read after sending. ") + typesHelp)
        ->type_name("TYPES");
    command->add_option("--timeout", options->timeout, "Give up after SECONDS")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 1000000.0));
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runConnect);
}

} // namespace VornTool
