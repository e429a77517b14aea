// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornExchange.h"

#include "LimitedConnection.h"
#include "OwnedDescriptor.h"
#include "ServiceAddress.h"
#include "TimedSocket.h"

#include <SystemCalls.h>
#include <VornException.h>
#include <VornPipeConnection.h>
#include <VornSSLSocketConnection.h>
#include <VornSocketConnection.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>

#include <endian.h>

namespace VornNet {

namespace {

constexpr const char* cInvalidAddress = "VornExchange::open: invalid address.";
constexpr const char* cOpenFailed = "VornExchange::open: failed.";
constexpr const char* cServiceRefused = "VornExchange::open: service refused.";
constexpr const char* cNoSocket = "VornExchange::limited: no socket.";
constexpr const char* cReceiveServiceFailed = "VornExchange::receiveService: failed.";
constexpr const char* cRefused = "VornExchange::receiveACK: refused.";
constexpr const char* cNoAcknowledgement = "VornExchange::receiveACK: no acknowledgement.";
constexpr const char* cReadTooLong = "VornExchange::readToEnd: too long.";
constexpr const char* cReadFailed = "VornExchange::readToEnd: failed.";
constexpr const char* cWriteTooLong = "VornExchange::transferBlock: too long.";
constexpr const char* cBlockTooLong = "VornExchange::receiveBlock: too long.";

constexpr std::size_t cPiece = 65'536;
constexpr char cAccepted = '+';
constexpr char cDenied = '-';

/** A pipe connection over a socket that is connected already. Without it, it has no name to connect to. */
class OpenedPipe : public VornPipeConnection {
public:
    using VornPipeConnection::VornPipeConnection;

    /** @return the cell that holds any pipe connection's descriptor, or null. */
    static const int* cellOf(const VornPipeConnection& connection) {
        return static_cast<const int*>(connection.*&OpenedPipe::m_pipeHandle);
    }

protected:
    int establishImpl(VornString& /*sExceptionMessage*/) override { return 0; }
};

/** The same over TCP. */
class OpenedSocket : public VornSocketConnection {
public:
    using VornSocketConnection::VornSocketConnection;

protected:
    int establishImpl(VornString& /*sExceptionMessage*/) override { return 0; }
};

/** Sets the time limit of each system call; 0 is none. @return 0 or an errno value */
int setCallLimit(int fd, std::chrono::milliseconds timeLimit) {
    using std::chrono::seconds;
    const auto whole = std::chrono::floor<seconds>(timeLimit);
    timeval limit{};
    limit.tv_sec = whole.count();
    limit.tv_usec = std::chrono::microseconds(timeLimit - whole).count();
    if (System::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == -1 ||
        System::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == -1)
        return errno;
    return 0;
}

/**
 * Connects until the deadline. The limit of the socket's calls bounds connect(2) too, which over a pipe waits
 * for room in the server's queue, and for that there is nothing to poll. Called again, it goes on where it
 * was. @return 0 or an errno value
 */
int connectUntil(int fd, const CallbackEndpoint::Address& address, const Deadline& deadline) {
    for (;;) {
        const int left = deadline.left();
        if (left == 0)
            return ETIMEDOUT;
        // To the socket, 0 is no limit.
        const int limited = setCallLimit(fd, std::chrono::milliseconds(std::max(left, 0)));
        if (limited != 0)
            return limited;
        if (System::connect(fd, address.get(), address.length()) == 0)
            return 0;
        const int error = errno;
        if (error != EAGAIN && error != EINPROGRESS && error != EALREADY && error != EINTR)
            return error;
    }
}

/** @return an open socket that is connected. @throws VornException */
OwnedDescriptor connectTo(const CallbackEndpoint& endpoint, const Deadline& deadline) {
    const int family = endpoint.kind() == CallbackEndpoint::Kind::pipe ? AF_UNIX : AF_INET;
    OwnedDescriptor socket(System::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.isOpen())
        throw VornException(cOpenFailed, errno);
    const CallbackEndpoint::Address address(endpoint);
    int error = connectUntil(socket.number(), address, deadline);
    if (error == 0 && address.isOwnOf(socket.number()))
        error = ECONNREFUSED;
    if (error != 0)
        throw VornException(cOpenFailed, error);
    return socket;
}

/** The client's half of the handshake. @throws VornException */
void askFor(const VornString& sService, const TimedSocket& socket) {
    // As over the connections: the name ends at its first zero byte.
    const VornString sLine = VornString(sService.c_str()) + "\r\n";
    long error = 0;
    char answer = '\0';
    if (socket.send(sLine.data(), static_cast<long>(sLine.size()), &error) == -1 ||
        socket.receive(&answer, 1, &error, true) == -1)
        throw VornException(cOpenFailed, static_cast<int>(error));
    if (answer != cAccepted)
        throw VornException(cServiceRefused, ECONNREFUSED);
}

/** Puts the line of a service handshake together from what comes in. */
class ServiceLine {
public:
    /** @return whether the line is complete. @throws VornException for bytes that belong to no such line */
    bool add(char byte) {
        constexpr std::size_t cLongest = 255;
        if (m_hasReturn && byte == '\n')
            return true;
        const bool isPrintable = byte >= ' ' && byte <= '~';
        if (m_hasReturn || (byte != '\r' && (!isPrintable || m_sName.size() == cLongest)))
            throw VornException(cReceiveServiceFailed, EPROTO);
        if (byte == '\r')
            m_hasReturn = true;
        else
            m_sName += byte;
        return false;
    }

    const VornString& name() const { return m_sName; }

private:
    VornString m_sName;
    bool m_hasReturn = false;
};

/** Over a socket a whole piece is looked at, and no byte after the line is taken. */
void receiveLine(ServiceLine& line, const TimedSocket& socket) {
    std::array<char, 257> piece;
    for (bool isComplete = false; !isComplete;) {
        long error = ENOTCONN;
        long count = socket.peek(piece.data(), piece.size(), &error);
        if (count <= 0)
            throw VornException(cReceiveServiceFailed, static_cast<int>(error));
        long taken = 0;
        while (taken < count && !isComplete)
            isComplete = line.add(piece[static_cast<std::size_t>(taken++)]);
        if (socket.receive(piece.data(), taken, &error, true) == -1)
            throw VornException(cReceiveServiceFailed, static_cast<int>(error));
    }
}

/** Elsewhere, byte by byte. */
void receiveLine(ServiceLine& line, VornConnection& connection) {
    for (bool isComplete = false; !isComplete;) {
        char byte = '\0';
        long error = 0;
        if (connection.receive(&byte, 1, &error, true) != 1)
            throw VornException(cReceiveServiceFailed, static_cast<int>(error != 0 ? error : ENOTCONN));
        isComplete = line.add(byte);
    }
}

/** The limit; within a limited connection not beyond that one's. */
Deadline deadlineWithin(VornConnection& connection, std::chrono::milliseconds timeLimit) {
    const Deadline deadline(timeLimit);
    const auto* limited = dynamic_cast<const LimitedConnection*>(&connection);
    return limited != nullptr ? deadline.orEarlier(limited->deadline()) : deadline;
}

void putBytes(VornConnection& connection, const void* bytes, std::size_t count) {
    connection.establish();
    connection.put(const_cast<void*>(bytes), static_cast<int>(count));
}

} // namespace

VornSmartPointer<VornConnection> VornExchange::open(const VornString& sAddress, const VornString& sService,
                                                    std::chrono::milliseconds timeLimit) {
    const Deadline deadline(timeLimit);
    const auto endpoint = ServiceAddress::ofClient(sAddress);
    if (!endpoint)
        throw VornException(cInvalidAddress, EINVAL);
    OwnedDescriptor socket = connectTo(*endpoint, deadline);
    if (!sService.empty())
        askFor(sService, TimedSocket(socket.number(), deadline));
    const int error = setCallLimit(socket.number(), timeLimit);
    if (error != 0)
        throw VornException(cOpenFailed, error);
    VornSmartPointer<VornConnection> spConnection;
    int fd = socket.number();
    if (endpoint->kind() == CallbackEndpoint::Kind::pipe)
        spConnection = new OpenedPipe(&fd, 1);
    else
        spConnection = new OpenedSocket(fd, endpoint->host(), nullptr, true);
    socket.release();
    spConnection->setServiceName(sService);
    return spConnection;
}

int VornExchange::getHandle(VornConnection& connection) {
    const auto* limited = dynamic_cast<const LimitedConnection*>(&connection);
    if (limited != nullptr)
        return limited->handle();
    const auto* pipe = dynamic_cast<const VornPipeConnection*>(&connection);
    auto* tcp = dynamic_cast<VornSocketConnection*>(&connection);
    // The class that stands for encrypted connections is a TCP connection by its base, and carries nothing.
    const auto* secure = dynamic_cast<const VornSSLSocketConnection*>(&connection);
    const int* cell = nullptr;
    if (pipe != nullptr)
        cell = OpenedPipe::cellOf(*pipe);
    else if (tcp != nullptr && secure == nullptr)
        cell = static_cast<const int*>(tcp->getSocket());
    return cell != nullptr ? *cell : -1;
}

bool VornExchange::setTimeLimit(VornConnection& connection, std::chrono::milliseconds timeLimit) {
    const int fd = getHandle(connection);
    return fd != -1 && setCallLimit(fd, std::max(timeLimit, std::chrono::milliseconds(0))) == 0;
}

VornSmartPointer<VornConnection> VornExchange::limited(VornConnection& connection,
                                                       std::chrono::milliseconds timeLimit) {
    const int fd = getHandle(connection);
    if (fd == -1)
        throw VornException(cNoSocket, EINVAL);
    return new LimitedConnection(connection, fd, deadlineWithin(connection, timeLimit));
}

VornString VornExchange::receiveService(VornConnection& connection, std::chrono::milliseconds timeLimit) {
    ServiceLine line;
    const int fd = getHandle(connection);
    if (fd != -1)
        receiveLine(line, TimedSocket(fd, deadlineWithin(connection, timeLimit)));
    else
        receiveLine(line, connection);
    return line.name();
}

void VornExchange::answerService(VornConnection& connection, bool bAccept) {
    putBytes(connection, bAccept ? &cAccepted : &cDenied, 1);
}

void VornExchange::transferError(VornConnection& connection, const VornString& sReason) {
    connection.transferError();
    connection.transfer(sReason);
}

void VornExchange::receiveACK(VornConnection& connection, bool bReason) {
    constexpr short cToken = 1;
    constexpr short cDone = 0;
    constexpr short cError = -1;
    const short result = connection.receiveShort() == cToken ? connection.receiveShort() : cToken;
    if (result == cDone)
        return;
    if (result != cError)
        throw VornException(cNoAcknowledgement, EPROTO);
    const VornString sReason = bReason ? connection.receiveString() : VornString();
    if (sReason.empty())
        throw VornException(cRefused, EPERM);
    throw VornException(sReason, EPERM);
}

VornString VornExchange::readToEnd(VornConnection& connection, std::size_t nLimit) {
    VornString sBytes;
    for (;;) {
        // One more than the limit is asked for, since only that byte tells the end from too much.
        const std::size_t size = sBytes.size();
        sBytes.resize(size + std::min(nLimit - size, cPiece - 1) + 1);
        long error = 0;
        const long count =
            connection.receive(sBytes.data() + size, static_cast<long>(sBytes.size() - size), &error, false);
        if (count <= 0 && error != 0 && error != ENOTCONN)
            throw VornException(cReadFailed, static_cast<int>(error));
        sBytes.resize(size + static_cast<std::size_t>(std::max(count, 0L)));
        if (count <= 0)
            return sBytes;
        if (sBytes.size() > nLimit)
            throw VornException(cReadTooLong, EMSGSIZE);
    }
}

void VornExchange::transferInt64(VornConnection& connection, std::int64_t nValue) {
    transferUInt64(connection, static_cast<std::uint64_t>(nValue));
}

std::int64_t VornExchange::receiveInt64(VornConnection& connection) {
    return static_cast<std::int64_t>(receiveUInt64(connection));
}

void VornExchange::transferUInt64(VornConnection& connection, std::uint64_t nValue) {
    const std::uint64_t ordered = htobe64(nValue);
    putBytes(connection, &ordered, sizeof ordered);
}

std::uint64_t VornExchange::receiveUInt64(VornConnection& connection) {
    std::uint64_t ordered = 0;
    connection.establish();
    connection.get(&ordered, sizeof ordered);
    return be64toh(ordered);
}

void VornExchange::transferDouble(VornConnection& connection, double dValue) {
    transferUInt64(connection, std::bit_cast<std::uint64_t>(dValue));
}

double VornExchange::receiveDouble(VornConnection& connection) {
    return std::bit_cast<double>(receiveUInt64(connection));
}

void VornExchange::transferBlock(VornConnection& connection, const void* pBytes, std::size_t nSize) {
    if (nSize > INT_MAX)
        throw VornException(cWriteTooLong, EMSGSIZE);
    connection.transfer(static_cast<int>(nSize));
    if (nSize > 0)
        putBytes(connection, pBytes, nSize);
}

VornString VornExchange::receiveBlock(VornConnection& connection, std::size_t nLimit) {
    const int nLength = connection.receiveInt();
    if (nLength < 0 || static_cast<std::size_t>(nLength) > nLimit)
        throw VornException(cBlockTooLong, EMSGSIZE);
    VornString sBlock;
    // Memory is taken as bytes arrive, for who announces much may send little.
    while (sBlock.size() < static_cast<std::size_t>(nLength)) {
        const std::size_t size = sBlock.size();
        const std::size_t piece = std::min(static_cast<std::size_t>(nLength) - size, cPiece);
        sBlock.resize(size + piece);
        connection.get(sBlock.data() + size, static_cast<int>(piece));
    }
    return sBlock;
}

} // namespace VornNet
