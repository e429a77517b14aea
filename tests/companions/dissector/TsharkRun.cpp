// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TsharkRun.h"

#include "Process.h"

#include <VornLibraryCallbackSink.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace VornTest {

namespace {

constexpr std::chrono::seconds cPatience(100);

Lines split(const std::string& text, char separator) {
    Lines parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        parts.push_back(part);
    return parts;
}

void append(Lines& lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
}

/** Reads an id and then waits for the sender's end, as callbacks over TCP do well to. */
class IdCallback : public VornNet::VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

protected:
    void doCallback(VornNet::VornSmartPointer<VornNet::VornConnection>& spConnection) override {
        spConnection->receiveLong();
        char byte = 0;
        long error = 0;
        spConnection->receive(&byte, 1, &error, true);
    }
};

std::string bigEndian(unsigned long number) {
    std::string result;
    for (int bits = 24; bits >= 0; bits -= 8)
        result += static_cast<char>(number >> bits & 255U);
    return result;
}

} // namespace

void VornnetDissector::SetUp() {
    std::string path = (std::filesystem::temp_directory_path() / "vornnet-wire.XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("no temporary directory");
    m_directory = path;
    const std::string plugins = path + "/.local/lib/wireshark/plugins";
    std::filesystem::create_directories(plugins);
    std::filesystem::create_symlink(VORNTEST_DISSECTOR, plugins + "/vornnet.lua");
    m_capture = std::make_unique<PacketCapture>();
}

void VornnetDissector::TearDown() {
    m_capture.reset();
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
}

std::string VornnetDissector::tshark(const Lines& options) {
    const std::string file = m_directory + "/capture.pcap";
    m_capture->write(file);
    Lines arguments = {"-n", "-r", file};
    append(arguments, options);
    const std::string output = run(arguments);
    EXPECT_THAT(output, testing::Not(testing::HasSubstr("Lua Error")));
    return output;
}

std::string VornnetDissector::report(const std::string& kind) {
    return run({"-G", kind});
}

std::string VornnetDissector::run(const Lines& options) {
    Lines arguments = {"tshark"};
    append(arguments, options);
    // With nobody's settings and plugins but those of the test's own home, and times that are the same
    // everywhere.
    ChildProcess tshark =
        ChildProcess::spawn(arguments, {"HOME=" + m_directory, "XDG_CONFIG_HOME", "WIRESHARK_CONFIG_DIR",
                                        "TZ=UTC", "LC_ALL=C.UTF-8"});
    tshark.closeInput();
    const std::string output = tshark.readAllOutput(cPatience);
    const std::string errors = tshark.readAllErrors(cPatience);
    EXPECT_EQ(tshark.wait(), 0) << errors;
    EXPECT_THAT(errors, testing::Not(testing::HasSubstr("Lua")));
    return output;
}

Lines VornnetDissector::table(const Lines& options, const Lines& columns) {
    Lines arguments = {"-T", "fields",       "-E", "separator=\t",
                       "-E", "aggregator=|", "-e", "_ws.expert.message"};
    for (const std::string& column : columns)
        append(arguments, {"-e", column});
    append(arguments, options);
    return split(tshark(arguments), '\n');
}

Lines VornnetDissector::shownOfAll(const Lines& options) {
    Lines result;
    for (const std::string& row : table(options, {"_ws.col.Protocol", "_ws.col.Info"})) {
        const Lines cells = split(row, '\t');
        if (cells.size() > 2 && cells[1] != "TCP")
            result.push_back(cells[1] + " " + cells[2]);
    }
    return result;
}

Lines VornnetDissector::shown(const Lines& options) {
    const std::string own = "VORNNET ";
    Lines result;
    for (const std::string& row : shownOfAll(options)) {
        if (row.rfind(own, 0) == 0)
            result.push_back(row.substr(own.size()));
    }
    return result;
}

Lines VornnetDissector::shownBothWays(Lines options) {
    Lines lines = shown(options);
    options.push_back("-2");
    EXPECT_EQ(shown(options), lines);
    return lines;
}

Lines VornnetDissector::remarks(const Lines& options) {
    Lines arguments = {"-O", "vornnet"};
    append(arguments, options);
    const std::regex remark(R"(\[Expert Info \((\w+)/\w+\): (.*)\])");
    Lines result;
    for (const std::string& line : split(tshark(arguments), '\n')) {
        std::smatch match;
        if (std::regex_search(line, match, remark))
            result.push_back(match.str(1) + ": " + match.str(2));
    }
    return result;
}

Lines VornnetDissector::fields(const Lines& names, const Lines& options) {
    Lines result;
    for (const std::string& row : table(options, names)) {
        const std::string cells = row.substr(row.find('\t') + 1);
        if (!cells.empty() && cells[0] != '\t')
            result.push_back(cells);
    }
    return result;
}

void VornnetDissector::converse(const Lines& says, int port, const Sender& send) {
    int bound = port;
    const UniqueFd listener = tcpListen("127.0.0.1", bound);
    UniqueFd client = tcpConnect("127.0.0.1", bound);
    UniqueFd server = acceptClient(listener.get());
    const int noDelay = 1;
    for (const int fd : {client.get(), server.get()})
        ASSERT_EQ(::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay), 0);
    for (std::size_t index = 0; index < says.size(); ++index) {
        const bool isClient = index % 2 == 0;
        send(isClient ? client.get() : server.get(), isClient ? server.get() : client.get(), says[index]);
    }
    client.reset();
    receiveToEnd(server.get());
    server.reset();
    m_ends += 2;
    m_capture->awaitEnds(m_ends);
}

void VornnetDissector::talk(const Lines& says, int port) {
    converse(says, port, [](int from, int to, const std::string& text) {
        sendAll(from, text);
        receiveExactly(to, text.size());
    });
}

void VornnetDissector::talkSlowly(const Lines& says, int port) {
    converse(says, port, [](int from, int to, const std::string& text) {
        for (const char byte : text) {
            sendAll(from, {&byte, 1});
            receiveExactly(to, 1);
        }
    });
}

void VornnetDissector::sendDatagrams(const Lines& datagrams, int port) {
    int from = 0;
    const UniqueFd receiver = udpSocket("127.0.0.1", port);
    const UniqueFd sender = udpSocket("127.0.0.1", from);
    for (const std::string& datagram : datagrams) {
        udpSendTo(sender.get(), "127.0.0.1", port, datagram);
        receiveDatagram(receiver.get());
    }
}

void callSink(const char* type, const std::function<void(const std::string& address)>& send) {
    ASSERT_EQ(::setenv("QUORAX_CALLB_CONN_TYPE", type, 1), 0);
    VornNet::VornLibraryCallbackSink sink("wire");
    const VornNet::VornSmartPointer<VornNet::VornNotificationCallback> spCallback = new IdCallback(7);
    sink.getCallbackContainer().add(spCallback);
    send(sink.getCallbackAddress());
    ASSERT_TRUE(spCallback->wait(10000));
}

Lines preferring(const Lines& settings) {
    Lines options;
    for (const std::string& setting : settings)
        append(options, {"-o", "vornnet." + setting});
    return options;
}

std::string longBytes(unsigned long number) {
    return bigEndian(number) + std::string(4, '\0');
}

std::string stringBytes(const std::string& text) {
    return bigEndian(text.size()) + text;
}

std::string notificationBytes(unsigned long handle, unsigned long id) {
    return longBytes(handle) + longBytes(id);
}

} // namespace VornTest
