// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ServicePipe.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <sys/ioctl.h>

namespace VornRelay {

namespace {

constexpr std::size_t cHandleSize = 8;

/**
 * A dispatcher sends one byte less than the handle first, and waits until these are taken. So they are read
 * without leaving one.
 */
constexpr std::size_t cProbeSize = cHandleSize - 1;

} // namespace

/** One connection of a service. */
class ServicePipe::Exchange : public RelayLoop::Handler, public std::enable_shared_from_this<Exchange> {
public:
    Exchange(ServicePipe& pipe, VornNet::OwnedDescriptor&& connection, std::uint16_t nPort)
        : m_pipe(pipe), m_connection(std::move(connection)), m_nPort(nPort) {}

    ~Exchange() override { close(); }

    void watch() { m_pipe.m_loop.watch(m_connection.number(), EPOLLIN | EPOLLRDHUP | EPOLLET, *this); }

    bool isReading() const { return m_bReading; }

    void ready(std::uint32_t nEvents) override {
        if (!m_connection.isOpen())
            return;
        if (!m_bReading) {
            if ((nEvents & (EPOLLHUP | EPOLLERR)) != 0)
                m_pipe.end(shared_from_this()); // the service does not wait any longer
            return;
        }
        if (!read()) {
            m_pipe.m_owner.broken();
            m_pipe.end(shared_from_this());
        } else if (m_sBytes.size() > m_pipe.m_owner.mostContent()) {
            m_pipe.m_owner.tooLong();
            m_pipe.end(shared_from_this());
        } else if ((nEvents & (EPOLLRDHUP | EPOLLHUP)) != 0) {
            finish((nEvents & EPOLLHUP) != 0);
        }
    }

    /** Reads the last byte, which makes the close a confirmation. */
    void confirm() {
        char last = 0;
        System::recv(m_connection.number(), &last, 1, 0);
    }

    void close() {
        if (!m_connection.isOpen())
            return;
        m_pipe.m_loop.unwatch(m_connection.number());
        m_connection.reset();
    }

private:
    /** Reads what is there, but for one byte when the handle is complete. @return whether it went well */
    bool read() {
        std::array<char, 65536> part;
        for (;;) {
            int nThere = 0;
            if (System::ioctl(m_connection.number(), FIONREAD, &nThere) == -1)
                return false;
            std::size_t nWanted = static_cast<std::size_t>(nThere);
            if (m_sBytes.size() + nWanted > cProbeSize)
                nWanted = std::max(cProbeSize - std::min(m_sBytes.size(), cProbeSize), nWanted - 1);
            if (nWanted == 0)
                return true;
            const ssize_t count =
                System::recv(m_connection.number(), part.data(), std::min(nWanted, part.size()), 0);
            if (count <= 0)
                return count == -1 && errno == EAGAIN;
            m_sBytes.append(part.data(), static_cast<std::size_t>(count));
            if (m_sBytes.size() > m_pipe.m_owner.mostContent())
                return true;
        }
    }

    /** The service has sent everything. @param bClosed it does not wait for an answer either */
    void finish(bool bClosed) {
        char last = 0;
        if (System::recv(m_connection.number(), &last, 1, MSG_PEEK) == 1)
            m_sBytes.push_back(last);
        m_bReading = false;
        --m_pipe.m_nReading;
        const std::shared_ptr<Exchange> spSelf = shared_from_this();
        if (m_sBytes.size() < cHandleSize) {
            m_pipe.m_owner.broken();
            m_pipe.end(spSelf);
            return;
        }
        if (bClosed) {
            m_pipe.end(spSelf);
            m_pipe.m_owner.accepted(std::move(m_sBytes), m_nPort, [](bool) {});
            return;
        }
        m_pipe.m_owner.accepted(std::move(m_sBytes), m_nPort, [wpSelf = weak_from_this()](bool bStored) {
            const std::shared_ptr<Exchange> spExchange = wpSelf.lock();
            if (!spExchange || !spExchange->m_connection.isOpen())
                return;
            if (bStored)
                spExchange->confirm();
            spExchange->m_pipe.end(spExchange);
        });
    }

    ServicePipe& m_pipe;
    VornNet::OwnedDescriptor m_connection;
    const std::uint16_t m_nPort;
    std::string m_sBytes;
    bool m_bReading = true;
};

ServicePipe::ServicePipe(RelayLoop& loop, const std::string& sName, Owner& owner)
    : m_loop(loop), m_owner(owner),
      m_pipe(loop, sName, [this](VornNet::OwnedDescriptor&& connection) { take(std::move(connection), 0); }) {
}

ServicePipe::~ServicePipe() {
    for (const std::shared_ptr<Exchange>& spExchange : m_exchanges) {
        spExchange->close();
        m_loop.discard(spExchange);
    }
}

void ServicePipe::take(VornNet::OwnedDescriptor&& connection, std::uint16_t nPort) {
    const auto spExchange = std::make_shared<Exchange>(*this, std::move(connection), nPort);
    spExchange->watch();
    m_exchanges.insert(spExchange);
    ++m_nReading;
}

void ServicePipe::end(const std::shared_ptr<Exchange>& spExchange) {
    if (spExchange->isReading())
        --m_nReading;
    spExchange->close();
    m_loop.discard(spExchange);
    m_exchanges.erase(spExchange);
}

} // namespace VornRelay
