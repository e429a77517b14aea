// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "NotificationPeer.h"

#include "Interpose.h"
#include "Sandbox.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace VornTest {

namespace {

constexpr const char* typeVariable = "QUORAX_CALLB_CONN_TYPE";

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool awaitWaitOf(Kind kind, pid_t tid) {
    switch (kind) {
    case Kind::pipe:
        return awaitBlockedIn(tid, {SYS_select, SYS_pselect6, SYS_poll, SYS_ppoll});
    case Kind::socket:
        return awaitBlockedIn(tid, {SYS_accept, SYS_accept4});
    case Kind::udp:
        break;
    }
    return awaitBlockedIn(tid, {SYS_recvfrom});
}

std::vector<pid_t> tidsOfThreads(const std::string& name) {
    std::vector<pid_t> result;
    for (const pid_t tid : threadIds()) {
        try {
            if (readTextFile("/proc/self/task/" + std::to_string(tid) + "/comm") == name + "\n")
                result.push_back(tid);
        } catch (const std::system_error&) {
            continue; // it has just ended
        }
    }
    return result;
}

Kind kindOf(const std::string& address) {
    const std::string kind = Target(address).kind;
    return kind == "udp" ? Kind::udp : kind == "socket" ? Kind::socket : Kind::pipe;
}

} // namespace

std::string nameOf(Kind kind) {
    return kind == Kind::pipe ? "pipe" : kind == Kind::socket ? "socket" : "udp";
}

void PrintTo(Kind kind, std::ostream* out) {
    *out << nameOf(kind);
}

void useKind(Kind kind) {
    useTypeText(nameOf(kind));
}

void useTypeText(const std::string& value) {
    if (::setenv(typeVariable, value.c_str(), 1) != 0)
        fail("setenv()");
}

std::string onWire(long value) {
    const auto low = static_cast<unsigned long>(value);
    std::string result;
    for (int shift = 24; shift >= 0; shift -= 8)
        result += static_cast<char>(static_cast<unsigned char>(low >> shift));
    return result + std::string(4, '\0');
}

pid_t tidOfThread(const std::string& name) {
    std::vector<pid_t> tids;
    // A thread that has been joined is still listed for a moment.
    if (!awaitCondition([&] { return (tids = tidsOfThreads(name)).size() <= 1; }))
        throw std::logic_error("two threads are called " + name);
    return tids.empty() ? 0 : tids.front();
}

std::chrono::milliseconds processorTime(const std::string& task) {
    const std::string stat = readTextFile(task + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return std::chrono::milliseconds((user + system) * 1000 / ::sysconf(_SC_CLK_TCK));
}

std::string readToEnd(VornNet::VornConnection& connection) {
    std::string result;
    char letter = 0;
    long error = 0;
    while (connection.receive(&letter, 1, &error, false) == 1)
        result += letter;
    return result;
}

WatchedSink::WatchedSink(Kind kind, const std::string& name) : m_kind(kind), m_tid(0) {
    useKind(kind);
    m_sink = std::make_unique<SinkProbe>(name);
    m_tid = tidOfThread(name);
}

bool WatchedSink::awaitServing() const {
    return awaitWaitOf(m_kind, m_tid);
}

bool WatchedSink::awaitReading() const {
    return awaitBlockedIn(m_tid, {SYS_recvfrom});
}

RecordingCallback::RecordingCallback(int id, Action action)
    : VornNotificationCallback(id), m_action(std::move(action)) {}

std::vector<std::string> RecordingCallback::contents() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_contents;
}

bool RecordingCallback::awaitCalls(int count) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, defaultLimit,
                              [&] { return m_contents.size() >= static_cast<std::size_t>(count); });
}

void RecordingCallback::doCallback(VornNet::VornSmartPointer<VornNet::VornConnection>& connection) {
    const std::string content = m_action ? m_action(connection) : readToEnd(*connection);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_contents.push_back(content);
    m_changed.notify_all();
}

CallbackPointer addCallback(VornNet::VornLibraryCallbackSink& sink, RecordingCallback::Action action) {
    return addCallbackAs(sink.getCallbackContainer().getNewId(), sink, std::move(action));
}

CallbackPointer addCallbackAs(int id, VornNet::VornLibraryCallbackSink& sink,
                              RecordingCallback::Action action) {
    CallbackPointer callback = new RecordingCallback(id, std::move(action));
    VornNet::VornNotificationCallback* base = callback;
    sink.getCallbackContainer().add(base);
    return callback;
}

MissingPipeDirectory::MissingPipeDirectory() : m_name(pipeDirectory()) {
    m_name.pop_back(); // the slash
    std::filesystem::rename(m_name, m_name + "-gone");
}

MissingPipeDirectory::~MissingPipeDirectory() {
    std::error_code ignored;
    std::filesystem::rename(m_name + "-gone", m_name, ignored);
}

std::string MissingPipeDirectory::pathNow(const std::string& name) const {
    return m_name + "-gone/" + name;
}

RecordingCallback::Action HeldCallback::action() {
    return action([](auto& connection) { return readToEnd(*connection); }, {});
}

RecordingCallback::Action HeldCallback::action(RecordingCallback::Action before,
                                               RecordingCallback::Action after) {
    return [this, before = std::move(before), after = std::move(after)](auto& connection) {
        std::string content = before ? before(connection) : "";
        m_entered.open();
        m_goesOn.await();
        return after ? after(connection) : content;
    };
}

void letPass(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    awaitCondition([&] { return std::chrono::steady_clock::now() >= end; });
}

Target::Target(const std::string& address) {
    const std::size_t first = address.find(':');
    const std::size_t second = address.find(':', first + 1);
    kind = address.substr(0, first);
    place = address.substr(first + 1, second - first - 1);
    if (second != std::string::npos)
        port = std::stoi(address.substr(second + 1));
}

UniqueFd connectToSink(const std::string& address) {
    const Target target(address);
    return target.kind == "pipe" ? unixConnect(pipePath(target.place))
                                 : tcpConnect(target.place, target.port);
}

void sendByHand(const std::string& address, const std::string& data) {
    const Target target(address);
    if (target.kind == "udp") {
        int port = 0;
        const UniqueFd fd = udpSocket("0.0.0.0", port);
        udpSendTo(fd.get(), target.place, target.port, data);
    } else {
        sendAll(connectToSink(address).get(), data);
    }
}

UniqueFd connectWhenServing(const WatchedSink& sink, const std::string& data) {
    EXPECT_TRUE(sink.awaitServing()) << describeThreads();
    UniqueFd client = connectToSink(sink.address());
    sendAll(client.get(), data);
    return client;
}

void sendWhenServing(const WatchedSink& sink, const std::string& data) {
    ASSERT_TRUE(sink.awaitServing()) << describeThreads();
    sendByHand(sink.address(), data);
}

void deliver(const WatchedSink& sink, const CallbackPointer& callback, const std::string& content) {
    const int before = callback->calls();
    sendWhenServing(sink, onWire(callback->getId()) + content);
    ASSERT_TRUE(callback->awaitCalls(before + 1)) << describeThreads();
}

std::vector<std::string> recordsOf(const std::string& className, const LogCapture& log) {
    std::vector<std::string> result;
    for (const LogCapture::Record& record : log.records()) {
        if (record.text.rfind(className + "::", 0) == 0)
            result.push_back(std::to_string(record.level) + " " + record.text);
    }
    return result;
}

std::vector<std::string> sinkRecords(const LogCapture& log) {
    return recordsOf("VornLibraryCallbackSink", log);
}

std::string debugRecord(const std::string& text) {
    return "9 VornLibraryCallbackSink::" + text;
}

std::string ownPipeName() {
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "quorax%x", static_cast<unsigned>(::getpid()));
    return text.data();
}

std::string firstAddress(Kind kind) {
    return kind == Kind::pipe ? "pipe:" + ownPipeName() : nameOf(kind) + ":127.0.0.1:5023";
}

std::string addressWithPort(Kind kind, int port) {
    return nameOf(kind) + ":127.0.0.1:" + std::to_string(port);
}

Traffic::Traffic(int threads) {
    for (int i = 0; i < threads; ++i)
        m_threads.emplace_back([this] { send(); });
}

Traffic::~Traffic() {
    m_ends = true;
    for (std::thread& thread : m_threads)
        thread.join();
}

void Traffic::aim(const std::string& address) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_target = address;
}

std::string Traffic::target() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_target;
}

void Traffic::send() {
    const std::string data = onWire(0) + onWire(1);
    while (!m_ends) {
        std::this_thread::yield();
        const std::string address = target();
        try {
            if (address.empty())
                continue;
            if (kindOf(address) == Kind::udp) {
                sendByHand(address, data);
                continue;
            }
            // It waits for the end, as a queue that runs full stalls TCP's senders for a second.
            const UniqueFd fd = connectToSink(address);
            sendAll(fd.get(), data);
            ::shutdown(fd.get(), SHUT_WR);
            receiveToEnd(fd.get());
        } catch (const std::system_error&) {
            continue; // the sink is just closed; that is what the traffic is for
        }
    }
}

void NotificationTest::SetUp() {
    // Pipes need no ports, so that they are tested even where no network can be created.
    const auto* transport = dynamic_cast<const testing::WithParamInterface<Kind>*>(this);
    if (transport == nullptr || testing::WithParamInterface<Kind>::GetParam() != Kind::pipe)
        enterFreshNetwork();
}

void NotificationTest::TearDown() {
    ::unsetenv(typeVariable);
}

int liveAsClient() {
    SinkProbe sink("client");
    const Kind kind = kindOf(sink.getCallbackAddress());
    addCallback(sink, [](auto& connection) {
        const std::string content = readToEnd(*connection);
        std::printf("%s\n", hex(content).c_str());
        return content;
    });
    std::printf("%s\n", sink.getCallbackAddress().c_str());
    for (std::string line; std::getline(std::cin, line);) {
        const bool isReady = awaitWaitOf(kind, tidOfThread("client"));
        std::printf("%s\n", isReady ? sink.getCallbackAddress().c_str() : "stuck");
    }
    return 0;
}

} // namespace VornTest
