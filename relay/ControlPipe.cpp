// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ControlPipe.h"

#include <array>
#include <cerrno>
#include <map>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace VornRelay {

namespace {

constexpr std::size_t cMostBytes = 8192;
constexpr std::size_t cMostClients = 256;

/** The verbs, with the number of texts that follow. A lease has a long at its end. */
const std::map<std::string, std::size_t> cVerbs{{"lease", 2}, {"release", 1}, {"leases", 0}, {"status", 0}};

/** Takes values off the beginning of bytes. */
class Reader {
public:
    explicit Reader(const std::string& sBytes) : m_sBytes(sBytes) {}

    bool readInt(std::uint32_t& nValue) {
        if (m_sBytes.size() - m_nDone < 4)
            return false;
        nValue = 0;
        for (int i = 0; i < 4; ++i)
            nValue = nValue << 8 | static_cast<unsigned char>(m_sBytes[m_nDone++]);
        return true;
    }

    bool readLong(std::uint32_t& nValue) {
        std::uint32_t nIgnored = 0;
        return readInt(nValue) && readInt(nIgnored);
    }

    bool readText(std::string& sText) {
        std::uint32_t nSize = 0;
        if (!readInt(nSize))
            return false;
        if (nSize > cMostBytes)
            throw std::invalid_argument("too long");
        if (m_sBytes.size() - m_nDone < nSize)
            return false;
        sText = m_sBytes.substr(m_nDone, nSize);
        m_nDone += nSize;
        return true;
    }

    std::size_t done() const { return m_nDone; }

private:
    const std::string& m_sBytes;
    std::size_t m_nDone = 0;
};

void putInt(std::string& sBytes, std::uint32_t nValue) {
    for (int nShift = 24; nShift >= 0; nShift -= 8)
        sBytes.push_back(static_cast<char>(nValue >> nShift));
}

} // namespace

void putText(std::string& sBytes, const std::string& sText) {
    putInt(sBytes, static_cast<std::uint32_t>(sText.size()));
    sBytes += sText;
}

void putLong(std::string& sBytes, std::uint32_t nValue) {
    putInt(sBytes, nValue);
    putInt(sBytes, 0);
}

/** A program that asks. It may ask more than once, one request after the other. */
class ControlPipe::Client : public RelayLoop::Handler, public std::enable_shared_from_this<Client> {
public:
    Client(ControlPipe& pipe, VornNet::OwnedDescriptor&& connection)
        : m_pipe(pipe), m_connection(std::move(connection)) {
        ucred peer{};
        socklen_t nSize = sizeof peer;
        if (System::getsockopt(m_connection.number(), SOL_SOCKET, SO_PEERCRED, &peer, &nSize) == -1)
            throw std::system_error(errno, std::generic_category());
        m_process = peer.pid;
        m_user = peer.uid;
    }

    void watch() {
        m_pipe.m_loop.watch(m_connection.number(), EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, *this);
    }

    void ready(std::uint32_t nEvents) override {
        if (!m_connection.isOpen())
            return;
        if (!read() || !answer() || !write() ||
            ((nEvents & (EPOLLRDHUP | EPOLLHUP)) != 0 && m_sAnswer.empty()))
            m_pipe.end(shared_from_this());
    }

    void close() {
        m_pipe.m_loop.unwatch(m_connection.number());
        m_connection.reset();
    }

private:
    bool read() {
        std::array<char, 4096> part;
        for (;;) {
            const ssize_t count = System::recv(m_connection.number(), part.data(), part.size(), 0);
            if (count == 0)
                return true;
            if (count == -1)
                return errno == EAGAIN;
            m_sBytes.append(part.data(), static_cast<std::size_t>(count));
            if (m_sBytes.size() > cMostBytes)
                return false;
        }
    }

    bool answer() try {
        for (;;) {
            ControlRequest request;
            const std::optional<std::size_t> nSize = parse(m_sBytes, request);
            if (!nSize.has_value())
                return true;
            m_sBytes.erase(0, *nSize);
            request.process = m_process;
            request.user = m_user;
            m_sAnswer += m_pipe.m_onRequest(request);
        }

    } catch (const std::invalid_argument&) {

        return false;
    }

    bool write() {
        while (!m_sAnswer.empty()) {
            const ssize_t count =
                System::send(m_connection.number(), m_sAnswer.data(), m_sAnswer.size(), MSG_NOSIGNAL);
            if (count == -1)
                return errno == EAGAIN;
            m_sAnswer.erase(0, static_cast<std::size_t>(count));
        }
        return true;
    }

    ControlPipe& m_pipe;
    VornNet::OwnedDescriptor m_connection;
    pid_t m_process = 0;
    uid_t m_user = 0;
    std::string m_sBytes;
    std::string m_sAnswer;
};

ControlPipe::ControlPipe(RelayLoop& loop, const std::string& sName, RequestHandler onRequest)
    : m_loop(loop), m_onRequest(std::move(onRequest)),
      m_pipe(loop, sName, [this](VornNet::OwnedDescriptor&& connection) { add(std::move(connection)); }) {}

ControlPipe::~ControlPipe() {
    for (const std::shared_ptr<Client>& spClient : m_clients) {
        spClient->close();
        m_loop.discard(spClient);
    }
}

std::optional<std::size_t> ControlPipe::parse(const std::string& sBytes, ControlRequest& request) {
    Reader reader(sBytes);
    if (!reader.readText(request.sVerb))
        return std::nullopt;
    const auto verb = cVerbs.find(request.sVerb);
    if (verb == cVerbs.end())
        throw std::invalid_argument("unknown verb");
    for (std::size_t i = 0; i < verb->second; ++i) {
        if (!reader.readText(request.texts.emplace_back()))
            return std::nullopt;
    }
    std::uint32_t nHandle = 0;
    if (request.sVerb == "lease" && !reader.readLong(nHandle))
        return std::nullopt;
    request.nHandle = static_cast<std::int32_t>(nHandle);
    return reader.done();
}

void ControlPipe::add(VornNet::OwnedDescriptor&& connection) {
    if (m_clients.size() >= cMostClients)
        return; // closes it
    const auto spClient = std::make_shared<Client>(*this, std::move(connection));
    spClient->watch();
    m_clients.insert(spClient);
}

void ControlPipe::end(const std::shared_ptr<Client>& spClient) {
    spClient->close();
    m_loop.discard(spClient);
    m_clients.erase(spClient);
}

} // namespace VornRelay
