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

/** How the operations of one kind may end. */
struct Terms {
    Link::Kind kind;
    unsigned writing;
    unsigned reading;
};

/** A row for an operation of an established connection, with bytes waiting to be read. */
template <typename Do>
Operation row(const Terms& terms, std::vector<std::string> names, const std::string& detail, unsigned allowed,
              const std::string& waiting, Do operation) {
    const std::string what = detail.empty() ? "" : ", " + detail;
    return {std::move(names), Link::nameOf(terms.kind) + what, allowed, [=](Trial& trial) {
                Link link(terms.kind, waiting);
                trial.attempt([&] { operation(link.connection()); });
            }};
}

/** A row for a text, whose reader is told when there is no memory for it. */
Operation textRow(const Terms& terms, const std::string& detail, unsigned allowed,
                  const std::string& waiting) {
    return {{"VornConnection::receiveString"},
            Link::nameOf(terms.kind) + ", " + detail,
            allowed,
            [=](Trial& trial) {
                Link link(terms.kind, waiting);
                trial.attempt([&] { link.connection().receiveString(); });
                const bool isConnected = terms.kind != Link::Kind::ssl; // an SSL connection never reads
                trial.expect(!trial.hasThrown() || trial.code() == (isConnected ? ENOMEM : ENOTCONN),
                             "another code than that of memory");
            }};
}

Operations writingRows(const Terms& terms) {
    const auto writes = [&](std::vector<std::string> names, const std::string& detail, auto operation) {
        return row(terms, std::move(names), detail, terms.writing, "", operation);
    };
    return {
        writes({"VornConnection::transfer"}, "text", [](VornConnection& c) { c.transfer(cText); }),
        writes({"VornConnection::transfer"}, "int", [](VornConnection& c) { c.transfer(7); }),
        writes({"VornConnection::transfer"}, "short",
               [](VornConnection& c) { c.transfer(static_cast<short>(7)); }),
        writes({"VornConnection::transfer"}, "long", [](VornConnection& c) { c.transfer(7L); }),
        writes({"VornConnection::transfer"}, "bool", [](VornConnection& c) { c.transfer(true); }),
        row(terms, {"VornConnection::transfer"}, "literal", terms.writing | throwsBadAlloc, "",
            [](VornConnection& c) { c.transfer("a literal with more than fifteen bytes"); }),
        writes({"VornConnection::transferACK"}, "", [](VornConnection& c) { c.transferACK(); }),
        writes({"VornConnection::transferError"}, "", [](VornConnection& c) { c.transferError(); }),
        writes({"VornConnection::put"}, "",
               [](VornConnection& c) {
                   std::array<char, 10> bytes = {};
                   c.put(bytes.data(), bytes.size());
               }),
        writes({Link::classOf(terms.kind) + "::transfer"}, "raw",
               [](VornConnection& c) {
                   long error = 0;
                   c.transfer("0123456789", 10, &error);
               }),
    };
}

Operations readingRows(const Terms& terms) {
    const std::string shortText = Link::onWire(40) + std::string(40, 'x');
    const std::string longText = Link::onWire(70'000) + std::string(70'000, 'x');
    const std::string zeros(16, '\0');
    // With memory at its end not even the exception can be made.
    const unsigned ofText = throwsVornException | endsProcess;
    return {
        textRow(terms, "short text", ofText, shortText),
        textRow(terms, "long text", ofText, longText),
        row(terms, {"VornConnection::receiveString"}, "negative length", ofText, "\xff\xff\xff\xff",
            [](VornConnection& c) { c.receiveString(); }),
        row(terms, {"VornConnection::receiveInt"}, "", terms.reading, zeros,
            [](VornConnection& c) { c.receiveInt(); }),
        row(terms, {"VornConnection::receiveShort"}, "", terms.reading, zeros,
            [](VornConnection& c) { c.receiveShort(); }),
        row(terms, {"VornConnection::receiveLong"}, "", terms.reading, zeros,
            [](VornConnection& c) { c.receiveLong(); }),
        row(terms, {"VornConnection::get"}, "", terms.reading, zeros,
            [](VornConnection& c) {
                std::array<char, 10> bytes;
                c.get(bytes.data(), bytes.size());
            }),
        row(terms, {Link::classOf(terms.kind) + "::receive"}, "", allocatesNothing, zeros,
            [](VornConnection& c) {
                std::array<char, 10> bytes;
                long error = 0;
                c.receive(bytes.data(), bytes.size(), &error, true);
            }),
        row(terms, {Link::classOf(terms.kind) + "::peekBytes"}, "", allocatesNothing, zeros,
            [](VornConnection& c) {
                std::array<char, 10> bytes;
                int size = bytes.size();
                int error = 0;
                c.peekBytes(bytes.data(), size, error);
            }),
    };
}

Operations socketRows(const Terms& terms) {
    const std::string line = "GET x\r\n";
    return {
        row(terms, {"VornConnection::getServerName"}, "", allocatesNothing, line,
            [](VornConnection& c) { c.getServerName(); }),
        row(terms, {"VornConnection::peekLine"}, "", allocatesNothing, line,
            [](VornConnection& c) {
                std::array<char, 10> bytes;
                int size = bytes.size();
                int error = 0;
                c.peekLine(bytes.data(), size, error);
            }),
        row(terms, {"VornConnection::getLine"}, "", allocatesNothing, line,
            [](VornConnection& c) {
                std::array<char, 10> bytes;
                int error = 0;
                c.getLine(bytes.data(), bytes.size(), error);
            }),
    };
}

Operations stateRows(const Terms& terms) {
    return {
        {{"VornConnection::setServiceName"},
         Link::nameOf(terms.kind),
         throwsBadAlloc,
         [=](Trial& trial) {
             Link link(terms.kind, "");
             link.connection().setServiceName("old");
             trial.attempt([&] { link.connection().setServiceName(cText); });
             trial.expect(link.connection().getServiceName() ==
                              (trial.hasThrown() ? VornString("old") : cText),
                          "another service name");
         }},
        row(terms,
            {"VornConnection::getServiceName", "VornConnection::getRemoteName", "VornConnection::setRaw",
             "VornConnection::getLocalAccess", "VornConnection::setLocalAccess",
             "VornConnection::getAccessRights", "VornPipeConnection::getAccessRights",
             "VornConnection::initialize", "VornConnection::establish",
             Link::classOf(terms.kind) + "::establishImpl"},
            "", allocatesNothing, "",
            [](VornConnection& c) {
                c.getServiceName();
                c.getRemoteName();
                c.setRaw(true);
                c.setRaw(false);
                c.setLocalAccess(c.getLocalAccess());
                c.getAccessRights();
                c.establish();
            }),
        row(terms, {"VornConnection::getPortName"}, "", allocatesNothing, "",
            [](VornConnection& c) { c.getPortName(); }),
        row(terms, {Link::classOf(terms.kind) + "::disconnect", "VornConnection::cleanup"}, "",
            allocatesNothing, "", [](VornConnection& c) { c.disconnect(); }),
    };
}

} // namespace

Operations connectionOperations() {
    Operations rows;
    const unsigned isLost = throwsVornException | endsProcess; // every operation of it fails
    for (const Terms& terms : {Terms{Link::Kind::buffer, allocatesNothing, allocatesNothing},
                               Terms{Link::Kind::fullBuffer, doesWithout, allocatesNothing},
                               Terms{Link::Kind::datagram, allocatesNothing, allocatesNothing},
                               Terms{Link::Kind::pipeClient, allocatesNothing, allocatesNothing},
                               Terms{Link::Kind::acceptedPipe, allocatesNothing, allocatesNothing},
                               Terms{Link::Kind::tcpClient, allocatesNothing, allocatesNothing},
                               Terms{Link::Kind::acceptedTcp, allocatesNothing, allocatesNothing},
                               Terms{Link::Kind::ssl, isLost, isLost}}) {
        // Of SSL, a line would be waited for forever, and its own address is that of no socket.
        const bool hasSocket = terms.kind != Link::Kind::ssl;
        for (const Operations& more : {writingRows(terms), readingRows(terms),
                                       hasSocket ? socketRows(terms) : Operations(), stateRows(terms)})
            rows.insert(rows.end(), more.begin(), more.end());
    }
    return rows;
}

} // namespace VornTest
