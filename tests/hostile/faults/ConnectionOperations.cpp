// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for what every connection can do, over each kind of connection that is established.

#include "Links.h"
#include "Operations.h"

#include <array>
#include <cerrno>

using namespace VornNet;

namespace VornTest {

namespace {

const VornString cText(40, 'x');

/** Rows for the operations of one kind of connection that is established. */
class LinkRows {
public:
    LinkRows(Operations& table, Link::Kind kind) : m_table(table), m_kind(kind) {}

    /** @param waiting the bytes that are waiting to be read */
    template <typename Do>
    void add(const std::string& title, unsigned allowed, const std::string& waiting, Do operation) {
        m_table.add(title, Link::nameOf(m_kind), allowed, onLink(m_kind, waiting, operation));
    }

    void addWriting(unsigned allowed);
    void addReading(unsigned allowed);
    void addLines();
    void addState();

private:
    std::string own(const char* operation) const { return Link::classOf(m_kind) + operation; }

    Operations& m_table;
    const Link::Kind m_kind;
};

void LinkRows::addWriting(unsigned allowed) {
    using C = VornConnection;
    add("VornConnection::transfer (text)", allowed, "", [](C& c) { c.transfer(cText); });
    add("VornConnection::transfer (int)", allowed, "", [](C& c) { c.transfer(7); });
    add("VornConnection::transfer (short)", allowed, "", [](C& c) { c.transfer(static_cast<short>(7)); });
    add("VornConnection::transfer (long)", allowed, "", [](C& c) { c.transfer(7L); });
    add("VornConnection::transfer (bool)", allowed, "", [](C& c) { c.transfer(true); });
    add("VornConnection::transfer (literal)", allowed | throwsBadAlloc, "",
        [](C& c) { c.transfer("a literal with more than fifteen bytes"); });
    add("VornConnection::transferACK", allowed, "", [](C& c) { c.transferACK(); });
    add("VornConnection::transferError", allowed, "", [](C& c) { c.transferError(); });
    add("VornConnection::put", allowed, "", [](C& c) {
        std::array<char, 10> bytes = {};
        c.put(bytes.data(), bytes.size());
    });
    add(own("::transfer (raw)"), allowed, "", [](C& c) {
        long error = 0;
        c.transfer("0123456789", 10, &error);
    });
}

void LinkRows::addReading(unsigned allowed) {
    using C = VornConnection;
    const std::string zeros(16, '\0');
    // With memory at its end not even the exception can be made.
    const unsigned ofText = throwsVornException | endsProcess;
    for (const std::string& text : {std::string(40, 'x'), std::string(70'000, 'x')}) {
        const auto length = static_cast<int>(text.size());
        m_table.add(
            "VornConnection::receiveString", Link::nameOf(m_kind) + ", " + std::to_string(length) + " bytes",
            ofText, [kind = m_kind, waiting = Link::onWire(length) + text](Trial& trial) {
                onLink(kind, waiting, [](C& c) { c.receiveString(); })(trial);
                const int code = kind == Link::Kind::ssl ? ENOTCONN : ENOMEM; // SSL never reads
                trial.expect(!trial.hasThrown() || trial.code() == code, "another code than that of memory");
            });
    }
    add("VornConnection::receiveString (negative length)", ofText, "\xff\xff\xff\xff",
        [](C& c) { c.receiveString(); });
    add("VornConnection::receiveInt", allowed, zeros, [](C& c) { c.receiveInt(); });
    add("VornConnection::receiveShort", allowed, zeros, [](C& c) { c.receiveShort(); });
    add("VornConnection::receiveLong", allowed, zeros, [](C& c) { c.receiveLong(); });
    add("VornConnection::get", allowed, zeros, [](C& c) {
        std::array<char, 10> bytes;
        c.get(bytes.data(), bytes.size());
    });
    add(own("::receive"), allocatesNothing, zeros, [](C& c) {
        std::array<char, 10> bytes;
        long error = 0;
        c.receive(bytes.data(), bytes.size(), &error, true);
    });
    add(own("::peekBytes"), allocatesNothing, zeros, [](C& c) {
        std::array<char, 10> bytes;
        int size = bytes.size();
        int error = 0;
        c.peekBytes(bytes.data(), size, error);
    });
}

void LinkRows::addLines() {
    using C = VornConnection;
    const std::string line = "GET x\r\n";
    add("VornConnection::getServerName", allocatesNothing, line, [](C& c) { c.getServerName(); });
    add("VornConnection::peekLine", allocatesNothing, line, [](C& c) {
        std::array<char, 10> bytes;
        int size = bytes.size();
        int error = 0;
        c.peekLine(bytes.data(), size, error);
    });
    add("VornConnection::getLine", allocatesNothing, line, [](C& c) {
        std::array<char, 10> bytes;
        int error = 0;
        c.getLine(bytes.data(), bytes.size(), error);
    });
}

void LinkRows::addState() {
    using C = VornConnection;
    m_table.add("VornConnection::setServiceName", Link::nameOf(m_kind), throwsBadAlloc,
                [kind = m_kind](Trial& trial) {
                    Link link(kind, "");
                    C& connection = link.connection();
                    connection.setServiceName("old");
                    trial.attempt([&] { connection.setServiceName(cText); });
                    const VornString expected = trial.hasThrown() ? VornString("old") : cText;
                    trial.expect(connection.getServiceName() == expected, "another service name");
                });
    add("VornConnection::getServiceName, getRemoteName, setRaw, getLocalAccess, setLocalAccess, "
        "getAccessRights, initialize, establish, VornPipeConnection::getAccessRights, " +
            own("::establishImpl"),
        allocatesNothing, "", [](C& c) {
            c.getServiceName();
            c.getRemoteName();
            c.setRaw(true);
            c.setRaw(false);
            c.setLocalAccess(c.getLocalAccess());
            c.getAccessRights();
            c.establish();
        });
    add("VornConnection::getPortName", allocatesNothing, "", [](C& c) { c.getPortName(); });
    add("VornConnection::cleanup, " + own("::disconnect"), allocatesNothing, "",
        [](C& c) { c.disconnect(); });
}

} // namespace

void addConnections(Operations& table) {
    const unsigned isLost = throwsVornException | endsProcess; // every operation of it fails
    using Kind = Link::Kind;
    for (const auto kind : {Kind::buffer, Kind::fullBuffer, Kind::datagram, Kind::pipeClient,
                            Kind::acceptedPipe, Kind::tcpClient, Kind::acceptedTcp, Kind::ssl}) {
        LinkRows rows(table, kind);
        const unsigned allowed = kind == Kind::ssl ? isLost : allocatesNothing;
        rows.addWriting(kind == Kind::fullBuffer ? doesWithout : allowed);
        rows.addReading(allowed);
        // Of SSL, a line would be waited for forever, and its own address is that of no socket.
        if (kind != Kind::ssl)
            rows.addLines();
        rows.addState();
    }
}

} // namespace VornTest
