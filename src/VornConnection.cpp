// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornConnection.h"

#include "BufferAccess.h" // knows two derived classes, for speed

#include <Cancellation.h>
#include <LogRecord.h>
#include <VornException.h>
#include <VornSleep.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <vector>

#include <endian.h>

namespace VornNet {

namespace {

constexpr const char* cReadFailed = "VornConnection::get: failed read";
constexpr const char* cWriteFailed = "VornConnection::put: transfer failed.";
constexpr const char* cServiceFailed =
    "VornConnection::connectToService: connection to remote service failed.";

/**
 * Runs a typed operation. Callers are promised VornException and nothing else, so anything else that a
 * transport throws is a fault of the program; the cancellation of a thread is no exception of the program's
 * and passes.
 */
template <typename Operation>
auto guarded(Operation&& operation) -> decltype(operation()) {
    try {
        return operation();
    } catch (const VornException&) {
        throw;
    } catch (...) {
        if (isCancellation())
            throw;
        std::terminate();
    }
}

// Network order is the most significant byte first.

std::uint16_t inNetworkOrder(std::uint16_t value) {
    return htobe16(value);
}

std::uint32_t inNetworkOrder(std::uint32_t value) {
    return htobe32(value);
}

std::uint64_t inNetworkOrder(std::uint64_t value) {
    return htobe64(value);
}

// A long travels as its low half and four zero bytes, as peers with 32-bit longs write it.
std::uint64_t asTravels(long lValue) {
    return static_cast<std::uint64_t>(static_cast<std::uint32_t>(lValue)) << 32;
}

// The long way is a separate function, so that the short one needs no stack frame.

template <typename Unsigned>
[[gnu::noinline]] void writeTheLongWay(VornConnection& connection, Unsigned value) {
    guarded([&] {
        connection.establish();
        Unsigned ordered = inNetworkOrder(value);
        connection.put(&ordered, sizeof ordered);
    });
}

template <typename Unsigned>
[[gnu::noinline]] Unsigned readTheLongWay(VornConnection& connection) {
    return guarded([&] {
        connection.establish();
        Unsigned ordered = 0;
        connection.get(&ordered, sizeof ordered);
        return inNetworkOrder(ordered);
    });
}

template <typename Unsigned>
[[gnu::always_inline]] inline void writeNumber(VornConnection& connection, Unsigned value) {
    const Unsigned ordered = inNetworkOrder(value);
    if (!BufferAccess(connection).append(&ordered, sizeof ordered))
        writeTheLongWay(connection, value);
}

template <typename Unsigned>
[[gnu::always_inline]] inline Unsigned readNumber(VornConnection& connection) {
    const unsigned char* bytes = BufferAccess(connection).take(sizeof(Unsigned));
    if (bytes == nullptr)
        return readTheLongWay<Unsigned>(connection);
    Unsigned ordered = 0;
    std::memcpy(&ordered, bytes, sizeof ordered);
    return inNetworkOrder(ordered);
}

/** Makes a text. @throws VornException when there is no memory for it: to its reader that is a failed read */
template <typename... Arguments>
VornString makeText(Arguments... arguments) {
    try {
        return VornString(arguments...);
    } catch (const std::bad_alloc&) {
        throw VornException(cReadFailed, ENOMEM);
    }
}

/** @return the text up to its first zero byte. */
VornString cutAtZero(const char* text, int nSize) {
    return makeText(text, ::strnlen(text, static_cast<std::size_t>(nSize)));
}

/** Reads a short text straight into its place, which costs one allocation and the zeros it is filled with
 * first. */
VornString readShortText(VornConnection& connection, int nSize) {
    VornString sText = makeText(static_cast<std::size_t>(nSize), '\0');
    connection.get(sText.data(), nSize);
    sText.resize(::strnlen(sText.data(), sText.size()));
    return sText;
}

/**
 * Reads a long text by way of memory that malloc() takes without touching it: a peer that announces much and
 * sends little costs address space only.
 */
VornString readLongText(VornConnection& connection, int nSize) {
    const std::unique_ptr<char, decltype(&std::free)> buffer(
        static_cast<char*>(std::malloc(static_cast<std::size_t>(nSize))), &std::free);
    if (buffer == nullptr)
        throw VornException(cReadFailed, ENOMEM);
    connection.get(buffer.get(), nSize);
    return cutAtZero(buffer.get(), nSize);
}

/** Reads a text whose length has been read. */
VornString readText(VornConnection& connection, int nSize) {
    constexpr int cLongestShortText = 65'536;
    if (nSize == 0)
        return {};
    if (nSize < 0)
        throw VornException(cReadFailed, 0);
    const BufferAccess access(connection);
    if (const unsigned char* text = access.take(nSize))
        return cutAtZero(reinterpret_cast<const char*>(text), nSize);
    if (access.drain()) // no memory is taken for what cannot come any more
        throw VornException(cReadFailed, 0);
    return nSize <= cLongestShortText ? readShortText(connection, nSize) : readLongText(connection, nSize);
}

// Bytes of 0x80 and above count as unprintable in every locale.
bool isPrintable(char character) {
    const auto value = static_cast<signed char>(character);
    return value >= 0 && std::isprint(value) != 0;
}

} // namespace

VornConnection::VornConnection()
    : m_bConnected(false), m_bClientConnection(false), m_bRaw(false), m_bLocalAccess(false) {}

VornConnection::VornConnection(bool bClientConnection, const VornString& sRemoteName)
    : VornConnection(bClientConnection, false, sRemoteName) {}

VornConnection::VornConnection(bool bClientConnection, bool bRaw, const VornString& sRemoteName)
    : m_bConnected(false), m_bClientConnection(bClientConnection), m_sRemoteName(sRemoteName), m_bRaw(bRaw),
      m_bLocalAccess(false) {}

VornConnection::~VornConnection() = default;

void VornConnection::transfer(const VornString& sString) {
    guarded([&] {
        establish();
        if (sString.size() > INT_MAX)
            throw VornException(cWriteFailed, EMSGSIZE);
        const int nStringLength = static_cast<int>(sString.size());
        transfer(nStringLength);
        if (nStringLength > 0)
            put(const_cast<char*>(sString.data()), nStringLength);
    });
}

void VornConnection::transfer(int nValue) {
    writeNumber(*this, static_cast<std::uint32_t>(nValue));
}

void VornConnection::transfer(short nValue) {
    writeNumber(*this, static_cast<std::uint16_t>(nValue));
}

void VornConnection::transfer(long lValue) {
    writeNumber(*this, asTravels(lValue));
}

void VornConnection::transfer(bool bValue) {
    guarded([&] { transfer(static_cast<short>(bValue ? 1 : 0)); });
}

VornString VornConnection::receiveString() {
    return guarded([&] {
        establish();
        return readText(*this, receiveInt());
    });
}

int VornConnection::receiveInt() {
    return static_cast<int>(readNumber<std::uint32_t>(*this));
}

short VornConnection::receiveShort() {
    return static_cast<short>(readNumber<std::uint16_t>(*this));
}

long VornConnection::receiveLong() {
    // Zero-extended, so that -1 arrives as 4294967295; the lower half of what travels is not looked at.
    return static_cast<long>(readNumber<std::uint64_t>(*this) >> 32);
}

void VornConnection::transferACK() {
    guarded([&] {
        establish();
        transfer(static_cast<short>(1));
        transfer(static_cast<short>(0));
    });
}

void VornConnection::transferError() {
    guarded([&] {
        establish();
        transfer(static_cast<short>(1));
        transfer(static_cast<short>(-1));
    });
}

const VornString& VornConnection::getRemoteName() {
    return m_sRemoteName;
}

const VornString& VornConnection::getServiceName() {
    return m_sServiceName;
}

void VornConnection::setServiceName(const VornString& sServiceName) {
    m_sServiceName = sServiceName;
}

int VornConnection::get(void* pBuffer, int nSize) {
    return guarded([&] {
        long nError = 0;
        // The count alone decides, as the error alone does in put().
        if (receive(static_cast<char*>(pBuffer), nSize, &nError, true) != nSize)
            throw VornException(cReadFailed, static_cast<int>(nError));
        return nSize;
    });
}

void VornConnection::put(void* pBuffer, int nSize) {
    guarded([&] {
        long nError = 0;
        transfer(static_cast<const char*>(pBuffer), nSize, &nError);
        // Kept: the count is not looked at; a transport that sends less without an error is trusted.
        if (nError != 0)
            throw VornException(cWriteFailed, static_cast<int>(nError));
    });
}

bool VornConnection::peekLine(char* pBuffer, int& nSize, int& nErrorCode) {
    constexpr int cMostTries = 3;
    constexpr int cPause = 100;
    nErrorCode = 0;
    if (nSize < 1) { // no room for the terminator
        nSize = 0;
        return false;
    }
    const int nCapacity = nSize - 1;
    for (int nTries = 1;; ++nTries) {
        int n = nCapacity;
        peekBytes(pBuffer, n, nErrorCode);
        // A refused connection leaves the size unchanged: the error decides.
        nSize = nErrorCode != 0 ? 0 : std::clamp(n, 0, nCapacity);
        if (nSize > 0 || nErrorCode != 0 || nTries == cMostTries)
            break;
        VornSleep(cPause);
    }
    pBuffer[nSize] = '\0';
    // A buffer connection claims the whole room, whatever it has copied; an old line must not show after
    // that.
    if (nSize == nCapacity)
        pBuffer[BufferAccess::shown(*this, nSize)] = '\0';

    char* lineEnd = std::strstr(pBuffer, "\r\n");
    if (lineEnd == nullptr) {
        logRecord(VornLogging::cVerbose, "VornConnection::peekLine: read ", nSize, " without a <CRLF> pair");
        return false;
    }
    *lineEnd = '\0';
    const char* unprintable = std::find_if_not(pBuffer, lineEnd, isPrintable);
    if (unprintable != lineEnd) {
        logRecord(VornLogging::cVerbose, "HTTPRequest::PeekLine: break on character = ", *unprintable);
        return false;
    }
    return true;
}

char* VornConnection::getLine(char* pszBuffer, int nBufferLen, int& nErrorCode) {
    for (;;) {
        nErrorCode = 0;
        int n = nBufferLen;
        const bool isLine = peekLine(pszBuffer, n, nErrorCode);
        if (nErrorCode != 0)
            return nullptr;
        if (isLine)
            break;
        if (n != 0 || nBufferLen < 2) // no byte can be looked at, so no line would ever be found
            return nullptr;
    }
    const int nLineLen = static_cast<int>(std::strlen(pszBuffer));
    get(pszBuffer, nLineLen + 2);
    pszBuffer[nLineLen] = '\0';
    return pszBuffer;
}

void VornConnection::setRaw(bool bRaw) {
    m_bRaw = bRaw;
    if (!bRaw)
        initialize();
}

VornString VornConnection::getServerName() {
    return m_sServerName;
}

VornString VornConnection::getPortName() {
    return m_sPortName;
}

bool VornConnection::getLocalAccess() {
    return m_bLocalAccess;
}

void VornConnection::setLocalAccess(bool bLocalAccess) {
    m_bLocalAccess = bLocalAccess;
}

unsigned int VornConnection::getAccessRights() {
    return 1;
}

void VornConnection::transfer(const char* text) {
    transfer(VornStringFromChar(text));
}

void VornConnection::establish() {
    VornString sExceptionMessage;
    const int rc = establishImpl(sExceptionMessage);
    if (rc != 0 || !sExceptionMessage.empty())
        throw VornException(sExceptionMessage, rc);
}

void VornConnection::connectToService() {
    if (!connectToServiceImpl())
        throw VornException(cServiceFailed, 0);
}

void VornConnection::initialize() {}

void VornConnection::cleanup() {
    m_bConnected = false;
}

bool VornConnection::connectToServiceImpl() {
    constexpr char cAccepted = '+';
    if (m_sServiceName.empty())
        return true;

    std::vector<char> request(m_sServiceName.size() + 3);
    VornStringToChar(m_sServiceName, request.data(), static_cast<int>(request.size()));
    // The name ends at its first zero byte.
    const std::size_t length = std::strlen(request.data());
    request[length] = '\r';
    request[length + 1] = '\n';

    long nError = 0;
    if (transfer(request.data(), static_cast<long>(length + 2), &nError) == -1)
        return false;
    char answer = '\0';
    return receive(&answer, 1, &nError, true) == 1 && answer == cAccepted;
}

} // namespace VornNet
