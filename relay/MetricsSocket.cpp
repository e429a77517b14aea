// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "MetricsSocket.h"

#include "StateFile.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/un.h>

namespace VornRelay {

namespace {

constexpr std::size_t cMostRequest = 8192;
constexpr std::size_t cMostClients = 16;

} // namespace

/** Somebody who asks. */
class MetricsSocket::Client : public RelayLoop::Handler, public std::enable_shared_from_this<Client> {
public:
    Client(MetricsSocket& owner, VornNet::OwnedDescriptor&& connection)
        : m_owner(owner), m_connection(std::move(connection)) {}

    void watch() { m_owner.m_loop.watch(m_connection.number(), EPOLLIN | EPOLLRDHUP, *this); }

    void ready(std::uint32_t) override {
        if (!m_connection.isOpen())
            return;
        std::array<char, 4096> part;
        const ssize_t count = System::recv(m_connection.number(), part.data(), part.size(), 0);
        if (count > 0)
            m_sRequest.append(part.data(), static_cast<std::size_t>(count));
        const bool bComplete = m_sRequest.find("\r\n\r\n") != std::string::npos;
        if (bComplete)
            answer();
        if (bComplete || count == 0 || (count == -1 && errno != EAGAIN) || m_sRequest.size() > cMostRequest)
            m_owner.end(shared_from_this());
    }

    void close() {
        m_owner.m_loop.unwatch(m_connection.number());
        m_connection.reset();
    }

private:
    /** The text fits what a socket takes at once; who is slower than that gets a part. */
    void answer() {
        const std::string sText = m_owner.m_text();
        const std::string sAnswer = "HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n"
                                    "Content-Length: " +
                                    std::to_string(sText.size()) + "\r\n\r\n" + sText;
        System::send(m_connection.number(), sAnswer.data(), sAnswer.size(), MSG_NOSIGNAL);
    }

    MetricsSocket& m_owner;
    VornNet::OwnedDescriptor m_connection;
    std::string m_sRequest;
};

MetricsSocket::MetricsSocket(RelayLoop& loop, std::string sPath, std::function<std::string()> text)
    : m_loop(loop), m_sPath(std::move(sPath)), m_text(std::move(text)),
      m_socket(System::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
      m_accepting(loop, [this](VornNet::OwnedDescriptor&& connection) { add(std::move(connection)); }) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_sPath.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        failWith(m_sPath);
    }
    std::memcpy(address.sun_path, m_sPath.data(), m_sPath.size());
    System::unlink(m_sPath.c_str());
    if (System::bind(m_socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        System::chmod(m_sPath.c_str(), 0660) == -1 || System::listen(m_socket.number(), SOMAXCONN) == -1)
        failWith(m_sPath);
    m_accepting.begin(m_socket.number());
}

MetricsSocket::~MetricsSocket() {
    System::unlink(m_sPath.c_str());
    for (const std::shared_ptr<Client>& spClient : m_clients) {
        spClient->close();
        m_loop.discard(spClient);
    }
}

void MetricsSocket::add(VornNet::OwnedDescriptor&& connection) {
    if (m_clients.size() >= cMostClients)
        return; // closes it
    const auto spClient = std::make_shared<Client>(*this, std::move(connection));
    spClient->watch();
    m_clients.insert(spClient);
}

void MetricsSocket::end(const std::shared_ptr<Client>& spClient) {
    spClient->close();
    m_loop.discard(spClient);
    m_clients.erase(spClient);
}

} // namespace VornRelay
