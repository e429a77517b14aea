// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SteadySinkPeer.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include <VornException.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace VornTest {

SteadyOptions optionsFor(Kind kind, const std::function<void(SteadyOptions&)>& change) {
    using VornNet::VornSteadySink;
    SteadyOptions options;
    options.kind = kind == Kind::pipe     ? VornSteadySink::Kind::pipe
                   : kind == Kind::socket ? VornSteadySink::Kind::tcp
                                          : VornSteadySink::Kind::udp;
    if (change)
        change(options);
    return options;
}

SteadyClient::SteadyClient(const SteadyOptions& options, RecordingCallback::Action action)
    : m_sink(std::make_unique<VornNet::VornSteadySink>("sink", options)), m_callback(add(std::move(action))) {
}

CallbackPointer SteadyClient::add(RecordingCallback::Action action) const {
    VornNet::VornCallbackContainer& container = m_sink->getCallbackContainer();
    CallbackPointer callback = new RecordingCallback(container.getNewId(), std::move(action));
    container.add(static_cast<VornNet::VornNotificationCallback*>(callback));
    return callback;
}

std::vector<std::string> SteadyClient::awaitContents(int count) const {
    EXPECT_TRUE(m_callback->awaitCalls(count));
    return m_callback->contents();
}

void endSending(int fd) {
    if (::shutdown(fd, SHUT_WR) != 0)
        throw std::system_error(errno, std::generic_category(), "shutdown()");
}

UniqueFd beginNotification(const std::string& address, std::string_view content) {
    UniqueFd fd = connectToSink(address);
    sendAll(fd.get(), onWire(0) + std::string(content));
    return fd;
}

UniqueFd sendNotification(const std::string& address, std::string_view content, long handle) {
    UniqueFd fd = connectToSink(address);
    sendAll(fd.get(), onWire(handle) + std::string(content));
    endSending(fd.get());
    return fd;
}

std::string endingOf(int fd) {
    std::array<char, 16> rest;
    const ssize_t count = ::recv(fd, rest.data(), rest.size(), 0);
    if (count == 0)
        return "end";
    if (count > 0)
        return "bytes";
    return errno == ECONNRESET ? "reset" : std::strerror(errno);
}

std::string deliverTo(const std::string& address, std::string_view content, long handle) {
    return endingOf(sendNotification(address, content, handle).get());
}

bool awaitTaken(int fd) {
    return awaitCondition([fd] {
        int left = 0;
        return ::ioctl(fd, SIOCOUTQ, &left) == 0 && left <= 1;
    });
}

int codeOf(const SteadyOptions& options, const std::string& text) {
    try {
        const VornNet::VornSteadySink sink("sink", options);
    } catch (const VornSupport::VornException& exception) {
        EXPECT_EQ(exception.getText(), text);
        return exception.getCode();
    }
    return 0;
}

} // namespace VornTest
