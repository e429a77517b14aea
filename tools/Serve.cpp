// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Address.h"
#include "Command.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "LibraryRecords.h"
#include "Output.h"
#include "PipeFiles.h"
#include "Usage.h"
#include "Values.h"

#include <VornException.h>
#include <VornPipeServer.h>
#include <VornServerSocket.h>
#include <VornSocketConnection.h>
#include <VornUDPServerSocket.h>

#include <array>
#include <chrono>

#include <poll.h>

namespace VornTool {

using VornNet::VornConnection;
using VornNet::VornIPCServer;
using VornNet::VornSocketConnection;
using VornSupport::VornException;
using VornSupport::VornSmartPointer;

namespace {

struct ServeOptions : CommonOptions {
    std::string address;
    std::string service;
    std::string expect;
    std::vector<std::string> reply;
    std::string group;
    long count = 0;
    bool ack = false;
    bool error = false;
    bool lines = false;
};

/** Opens a server without waiting for a client, so that its address can be told. */
template <typename Server, typename... Arguments>
VornSmartPointer<VornIPCServer> opened(const Arguments&... arguments) {
    struct Openable : Server {
        using Server::init;
        using Server::Server;
    };

    auto* server = new Openable(arguments...);
    VornSmartPointer<VornIPCServer> owner(server);
    server->init();
    return owner;
}

VornSmartPointer<VornIPCServer> openServer(const Address& address, const std::string& group) {
    constexpr int cBacklog = 5;
    constexpr unsigned int cLargestDatagram = 65536;
    constexpr unsigned int cDefaultRights = 7;
    constexpr unsigned int cGroupRights = 1;
    switch (address.kind) {
    case Address::Kind::Pipe:
        return new VornNet::VornPipeServer(address.name, group.empty() ? cDefaultRights : cGroupRights,
                                           group);
    case Address::Kind::Udp:
        return opened<VornNet::VornUDPServerSocket>(address.port, address.name, cLargestDatagram);
    case Address::Kind::Socket:
        break;
    }
    return opened<VornNet::VornServerSocket>(address.port, cBacklog, address.name);
}

/** Serves one client after another and prints what each of them said. */
class Service {
public:
    explicit Service(const ServeOptions& options);

    /** Talks with a client; a failure is printed and counted. */
    void serve(VornConnection& connection);

    bool isComplete() const { return m_options.count > 0 && m_clients >= m_options.count; }

    bool hasFailures() const { return m_failures > 0; }

private:
    void talk(VornConnection& connection);
    void shakeHands(VornConnection& connection);
    void serveLines(VornConnection& connection);
    void answer(VornConnection& connection);
    void print(const std::string& error) const;
    void printLine(const std::string& line) const;

    const ServeOptions& m_options;
    const std::vector<ValueType> m_types;
    const std::vector<Value> m_reply;
    long m_clients = 0;
    long m_failures = 0;
    bool m_local = false;
    std::vector<Value> m_received; // of the present client
    std::string m_answer;          // to the present client
};

Service::Service(const ServeOptions& options)
    : m_options(options), m_types(parseTypes(options.expect)), m_reply(parseValues(options.reply)) {}

/** Lets the client close first, for otherwise the port would be taken for a minute after the end. */
void awaitClientsEnd(VornConnection& connection) {
    auto* socket = dynamic_cast<VornSocketConnection*>(&connection);
    if (socket == nullptr || socket->getSocket() == nullptr)
        return;
    constexpr int cLimit = 1000;
    pollfd event = {*static_cast<int*>(socket->getSocket()), POLLIN, 0};
    std::array<char, 4096> buffer;
    long error = 0;
    while (::poll(&event, 1, cLimit) == 1 &&
           socket->receive(buffer.data(), static_cast<long>(buffer.size()), &error, false) > 0) {
    }
}

void Service::serve(VornConnection& connection) {
    std::string error;
    ++m_clients;
    m_received.clear();
    m_answer.clear();
    m_local = connection.getLocalAccess();
    try {
        talk(connection);
    } catch (const VornException& failure) {
        error = describeFailure(failure.getCode(), failure.getText());
    } catch (const ToolError& failure) {
        error = failure.what();
    }
    if (!error.empty())
        ++m_failures;
    print(error);
    awaitClientsEnd(connection);
}

void Service::talk(VornConnection& connection) {
    if (!m_options.service.empty())
        shakeHands(connection);
    for (const ValueType type : m_types)
        m_received.push_back(receiveValue(connection, type));
    if (m_options.lines)
        serveLines(connection);
    else
        answer(connection);
}

void Service::shakeHands(VornConnection& connection) {
    const Value request = receiveValue(connection, ValueType::Line);
    std::string reply = request.text == m_options.service ? "+" : "-";
    connection.put(reply.data(), 1);
    if (reply != "+")
        throw ToolError(exitRefused, "the client asked for the service " + quoted(request.text));
}

void Service::serveLines(VornConnection& connection) {
    std::string pending;
    std::array<char, 4096> buffer;
    long error = 0;
    // The library's own line reading never returns when the client closes, and takes a line that comes in
    // two pieces for none.
    for (;;) {
        const long count = connection.receive(buffer.data(), static_cast<long>(buffer.size()), &error, false);
        if (count <= 0)
            break;
        pending.append(buffer.data(), static_cast<std::size_t>(count));
        for (std::size_t end = pending.find("\r\n"); end != std::string::npos; end = pending.find("\r\n")) {
            printLine(pending.substr(0, end));
            pending.erase(0, end + 2);
            answer(connection);
        }
        if (pending.size() > 65536)
            throw ToolError(exitFailed, "a line without an end was received");
    }
    if (!pending.empty())
        throw ToolError(exitFailed, std::to_string(pending.size()) + " bytes without a line end were left");
}

void Service::answer(VornConnection& connection) {
    for (const Value& value : m_reply)
        sendValue(connection, value);
    if (m_options.ack)
        connection.transferACK();
    if (m_options.error)
        connection.transferError();
    m_answer = describe(m_reply);
    if (m_options.ack || m_options.error)
        m_answer += std::string(m_answer.empty() ? "" : ", ") + (m_options.ack ? "ack" : "error");
}

void Service::print(const std::string& error) const {
    if (m_options.json) {
        Json object = {{"event", "client"},
                       {"number", m_clients},
                       {"local", m_local},
                       {"values", toJson(m_received)},
                       {"answer", m_answer}};
        if (!error.empty())
            object["error"] = error;
        Output::json(object);
        return;
    }
    std::string text = "client " + std::to_string(m_clients) + ":";
    if (!m_received.empty())
        text += " " + describe(m_received) + ";";
    text += m_answer.empty() ? " no answer" : " answered " + m_answer;
    Output::line(error.empty() ? text : text + "; failed: " + error);
}

void Service::printLine(const std::string& line) const {
    Output::either(m_options.json, {{"event", "line"}, {"client", m_clients}, {"line", line}},
                   "line " + quoted(line));
}

void requirePossible(const Address& address, const ServeOptions& options) {
    const bool answers = !options.reply.empty() || options.ack || options.error;
    if (options.ack && options.error)
        throw ToolError(exitUsage, "--ack and --error exclude each other");
    if (options.lines && !options.expect.empty())
        throw ToolError(exitUsage, "--lines and --expect exclude each other");
    if (address.kind == Address::Kind::Udp && (answers || !options.service.empty()))
        throw ToolError(exitUsage,
                        "nothing goes back over udp: --service, --reply, --ack and --error are not "
                        "possible");
    if (address.kind != Address::Kind::Pipe && !options.group.empty())
        throw ToolError(exitUsage, "--group is for pipes");
}

/** @return a client; none for an empty datagram, or where the server has been closed. */
VornSmartPointer<VornConnection> nextClient(VornIPCServer& server, const Interruption& interruption) {
    try {
        return server.waitForClient(false);
    } catch (const VornException&) {
        // A pipe server that is closed just as its wait begins says so by an exception.
        if (!interruption.isRequested())
            throw;
        return {};
    }
}

void serveClients(VornIPCServer& server, Service& service, const Interruption& interruption) {
    constexpr int cMostFailures = 100;
    for (int failures = 0; failures < cMostFailures;) {
        if (interruption.isRequested() || service.isComplete() || Output::isLost())
            return;
        VornSmartPointer<VornConnection> spClient = nextClient(server, interruption);
        if (spClient == nullptr) {
            ++failures;
            continue;
        }
        failures = 0;
        service.serve(*spClient);
    }
    throw ToolError(exitFailed, "the server hands out no clients any more");
}

int runServe(ServeOptions& options) {
    const Address address = parseServerAddress(options.address);
    requirePossible(address, options);
    Service service(options);
    const LibraryRecords records(options.logLevel);
    VornSmartPointer<VornIPCServer> spServer = openServer(address, options.group);
    const auto removeFile = [&address] {
        // The library leaves the file of a closed pipe server, which would then be found dead.
        if (address.kind == Address::Kind::Pipe)
            removeIfDead(pipePath(address.name));
    };
    int status = exitDone;
    {
        Interruption interruption(std::chrono::milliseconds(500));
        Output::either(options.json, {{"event", "listening"}, {"address", options.address}},
                       "listening at " + options.address);
        interruption.onRequest([&spServer] { spServer->close(); });
        interruption.onForcedEnd(removeFile);
        serveClients(*spServer, service, interruption);
        status = interruption.status();
    }
    spServer = VornSmartPointer<VornIPCServer>();
    removeFile();
    if (status != exitDone)
        return status;
    return service.hasFailures() ? exitIncomplete : exitDone;
}

} // namespace

void addServe(CLI::App& app, Runner& runner) {
    auto options = std::make_shared<ServeOptions>();
    CLI::App* command = addCommand(app, "serve", "Serve clients: read values and answer", *options);
    command
        ->add_option("ADDRESS", options->address,
                     "Where to listen: pipe:NAME, socket:HOST:PORT or udp:HOST:PORT (ssl:HOST:PORT carries "
                     "nothing); * "
                     "is every address of this host")
        ->required();
    command->add_option("--service", options->service, "Expect the handshake for the service NAME")
        ->type_name("NAME");
    command->add_option("--expect", options->expect, std::string("What to read from a client. ") + typesHelp)
        ->type_name("TYPES");
    command
        ->add_option("--reply", options->reply,
                     std::string("What to answer, up to the next option. ") + valueHelp)
        ->type_name("VALUE...");
    command->add_flag("--ack", options->ack, "Answer with the acknowledgement token, after --reply");
    command->add_flag("--error", options->error, "Answer with the error token, after --reply");
    command->add_flag("--lines", options->lines, "Read and print lines that end in CR LF, and answer each");
    command->add_option("--group", options->group, "Give the file of a pipe to the group NAME")
        ->type_name("NAME");
    command->add_option("--count", options->count, "End after N clients")
        ->type_name("N")
        ->check(atLeastOne());
    addJsonOption(*command, *options);
    setRunner(command, runner, options, runServe);
}

} // namespace VornTool
