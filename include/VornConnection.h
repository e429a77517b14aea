// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNCONNECTION_H
#define VORNCONNECTION_H

#include "VornNetExport.h"

#include <VornObjectBase.h>
#include <VornSmartPointer.h>
#include <VornString.h>

#include <string_view>
#include <type_traits>

namespace VornNet {

/** The types that VornConnection::transfer() refuses. */
namespace Refused {

/** @cond */
template <typename T, typename... Others>
inline constexpr bool isOneOf = (std::is_same_v<T, Others> || ...);

template <typename T>
inline constexpr bool isByte = std::is_integral_v<T> && sizeof(T) == 1 && !std::is_same_v<T, bool>;

template <typename T>
inline constexpr bool isText =
    std::is_convertible_v<T, const char*> || std::is_convertible_v<T, const VornString&>;

template <typename T, bool = std::is_class_v<T>>
inline constexpr bool isPointer = (std::is_pointer_v<T> && !isText<T>) || std::is_member_pointer_v<T>;

template <typename T>
inline constexpr bool isPointer<T, true> = std::is_convertible_v<T, const volatile void*> && !isText<T>;

/** @endcond */

/** Characters and bytes. */
template <typename T>
using Byte = std::enable_if_t<isByte<T>>;

/** Integers that are none of short, int and long. */
template <typename T>
using Integer = std::enable_if_t<std::is_integral_v<T> && !isByte<T> && !isOneOf<T, bool, short, int, long>>;

/** Numbers with a fraction. */
template <typename T>
using Fraction = std::enable_if_t<std::is_floating_point_v<T>>;

/** Views of texts. */
template <typename T>
using View = std::enable_if_t<std::is_same_v<T, std::string_view>>;

/** Pointers of any kind to anything but a text. */
template <typename T>
using Pointer = std::enable_if_t<isPointer<T>>;

} // namespace Refused

/**
 * A bidirectional byte connection, and the typed encoding that the library uses on it.
 *
 * A client's connection is constructed unconnected and establishes itself in its first operation; a server's
 * connection is connected from the start. transfer() writes typed values, and the receive...() operation of
 * the same type reads them. disconnect() closes the connection; a client's connection opens a new one when it
 * is used again. The destructor closes what is still open.
 *
 * Numbers are sent most significant byte first. The wire does not say the type of a value, and nothing is
 * acknowledged. After a failure the two ends may be at different places of the stream, and the only safe
 * thing to do is to disconnect.
 *
 * Thread-safety: none; one connection is used by one thread at a time.
 * Blocking: every operation blocks as long as its transport does; there are no timeouts.
 * Ownership: never copied; shared through VornSmartPointer, or a local object to which no smart pointer
 * refers.
 * Signals: writing to a peer that is gone raises SIGPIPE on the stream transports: ignore it in every program
 * that writes. A signal that is handled without SA_RESTART interrupts a blocking operation (code 4, EINTR).
 * Errors: typed operations throw VornException; "VornConnection::get: failed read" and "VornConnection::put:
 * transfer failed." have the transport's error number. Any other exception that reaches a typed operation
 * ends the process. The raw operations report through their out-parameters.
 */
class VORNNET_API VornConnection : public VornObjectBase {
public:
    /** Creates an unconnected connection of a server's side, without a remote name. */
    VornConnection();

    /**
     * Creates an unconnected connection to that peer.
     * @param bClientConnection whether this end initiates the connection
     * @param sRemoteName       the peer: a host name or address, or a label
     */
    VornConnection(bool bClientConnection, const VornString& sRemoteName);

    /** As above. @param bRaw the initial state of setRaw() */
    VornConnection(bool bClientConnection, bool bRaw, const VornString& sRemoteName);

    /** Does not disconnect: each transport closes what it holds. */
    ~VornConnection() override;

    /** Closes the transport; the object can be used again. It tells the peer nothing but the end. */
    virtual void disconnect() = 0;

    /**
     * Writes a text: its length in 4 bytes, then its bytes; no terminator. Two raw writes.
     * @throws VornException "VornConnection::put: transfer failed." with the transport's error number; with
     * 90 (EMSGSIZE) and nothing written for a text of more than 2147483647 bytes, whose length has no room
     */
    virtual void transfer(const VornString& sString);

    /** Writes 4 bytes. @throws VornException "VornConnection::put: transfer failed." */
    virtual void transfer(int nValue);

    /** Writes 2 bytes. @throws VornException "VornConnection::put: transfer failed." */
    virtual void transfer(short nValue);

    /**
     * Writes 8 bytes: the low 32 bits of the value, then four zero bytes. The upper half is not sent:
     * a negative value arrives as a large positive one.
     * @throws VornException "VornConnection::put: transfer failed."
     */
    virtual void transfer(long lValue);

    /** Writes the short 1 or 0; the peer reads it with receiveShort(). @throws VornException as for a short
     */
    virtual void transfer(bool bValue);

    /**
     * Reads a text as transfer(const VornString&) writes it. It is cut at its first zero byte; the bytes
     * after it are consumed all the same. The announced length is not limited: if it cannot be allocated, the
     * read fails, and memory is touched only as bytes arrive.
     * @throws VornException "VornConnection::get: failed read" with the transport's error number, 12 (ENOMEM)
     *         when there is no memory for the length, or 0 for a negative length
     */
    virtual VornString receiveString();

    /** Reads 4 bytes. @throws VornException "VornConnection::get: failed read" */
    virtual int receiveInt();

    /** Reads 2 bytes. @throws VornException "VornConnection::get: failed read" */
    virtual short receiveShort();

    /**
     * Reads 8 bytes and ignores the last four. @return 0 to 4294967295, never a negative value
     * @throws VornException "VornConnection::get: failed read"
     */
    virtual long receiveLong();

    /** Writes the acknowledgement token, the shorts 1 and 0. @throws VornException as for a short */
    virtual void transferACK();

    /** Writes the error token, the shorts 1 and -1. @throws VornException as for a short */
    virtual void transferError();

    /** @return the peer's name as given at construction; valid as long as the connection. */
    virtual const VornString& getRemoteName();

    /** @return the service to ask for; empty when there is no service handshake. */
    virtual const VornString& getServiceName();

    /** Sets the service to ask for when the connection is next established; empty for no handshake. */
    virtual void setServiceName(const VornString& sServiceName);

    /**
     * Reads exactly @p nSize bytes into @p pBuffer. @return @p nSize
     * @throws VornException "VornConnection::get: failed read" when the transport delivers any other count;
     *         the transport's error number is ignored
     */
    virtual int get(void* pBuffer, int nSize);

    /**
     * Writes @p nSize bytes from @p pBuffer, which is not changed.
     * @throws VornException "VornConnection::put: transfer failed." when the transport reports an error
     * number; the count is ignored
     */
    virtual void put(void* pBuffer, int nSize);

    /**
     * Looks at the next line (text ended by CR LF) without consuming it. When nothing is waiting it looks
     * three times within 200 ms. A line that has arrived only in part is no line yet.
     * @param pBuffer     receives what is looked at and a zero byte; a line without its CR LF. What stands
     * after that is left as it was
     * @param nSize       on entry the capacity of @p pBuffer in bytes, terminator included; on exit the
     * number of waiting bytes looked at. A capacity of 1 has room for none: false, with 0 and the
     * transport's error
     * @param nErrorCode  receives the transport's error number, or 0
     * @return true when a whole line of printable characters is waiting. Why it is not is logged at level 4
     */
    virtual bool peekLine(char* pBuffer, int& nSize, int& nErrorCode);

    /**
     * Reads the next line and consumes it with its CR LF. It waits without limit while nothing arrives and no
     * error is reported, also after the peer has closed.
     * @param pszBuffer   receives the line, terminated by a zero byte
     * @param nBufferLen  capacity of @p pszBuffer in bytes, terminator included; below 3 nothing fits
     * @param nErrorCode  receives the transport's error number, or 0
     * @return @p pszBuffer; null on an error, and when what is waiting is not one line of printable
     * characters
     * @throws VornException "VornConnection::get: failed read"
     */
    virtual char* getLine(char* pszBuffer, int nBufferLen, int& nErrorCode);

    /**
     * Raw write of @p bufLen bytes. @return the number of bytes written; 0 or -1 on failure
     * @param error receives 0 or an errno value; must not be null
     */
    virtual long transfer(const char* buf, long bufLen, long* error) = 0;

    /**
     * Raw read of up to @p toRead bytes.
     * @param error        receives 0 or an errno value, 107 (ENOTCONN) when the peer has closed; must not be
     * null
     * @param bWaitForAll  whether to block until all of them have arrived
     * @return the number of bytes read; 0 or -1 on failure
     */
    virtual long receive(char* bufPtr, long toRead, long* error, bool bWaitForAll) = 0;

    /**
     * Raw look at waiting bytes, which stay unread.
     * @param nSize       on entry how many to look at, on exit how many there were
     * @param nErrorCode  receives 0 or an errno value
     * @return whether there were any
     */
    virtual bool peekBytes(void* pBuffer, int& nSize, int& nErrorCode) = 0;

    /** Sets raw mode, which changes no byte on the wire; leaving it calls initialize() again. */
    virtual void setRaw(bool bRaw);

    /** @return the local name of the connection; empty unless the transport knows one. */
    virtual VornString getServerName();

    /** @return the local port's text; empty unless the transport knows one. */
    virtual VornString getPortName();

    /** @return what setLocalAccess() was last told; servers tell it of the clients they hand out. */
    virtual bool getLocalAccess();

    /** Marks the peer as local or not. It is only kept: nothing in the library decides by it. */
    virtual void setLocalAccess(bool bLocalAccess);

    /** @return the access rights of the peer, 1 unless the transport knows others. */
    virtual unsigned int getAccessRights();

    /**
     * Writes a zero-terminated text as transfer(const VornString&) does; null counts as empty. It is here
     * because a literal would otherwise be taken for a bool.
     */
    void transfer(const char* text);

    // The comments are what a compiler shows of a refused call.
    /** Refused: these would be sent as another type, or leave open as which. @{ */
    template <typename T>
    Refused::Byte<T> transfer(T) = delete; // write VornString(1, character) or static_cast<short>(number)
    template <typename T>
    Refused::Integer<T> transfer(T) = delete; // write static_cast<int>(number), or <short> or <long>
    template <typename T>
    Refused::Fraction<T> transfer(T) = delete; // write VornString(std::to_string(number)), or cast to int
    template <typename T>
    Refused::View<T> transfer(T) = delete; // write VornString(view)
    template <typename T>
    Refused::Pointer<T> transfer(T) = delete; // write *pointer, or pointer != nullptr for a bool
    /** @} */

    /**
     * Establishes the connection unless it is established; every typed operation begins with it.
     * @throws VornException with the transport's text and error number
     */
    void establish();

    /**
     * Runs the service handshake on the connected transport.
     * @throws VornException "VornConnection::connectToService: connection to remote service failed.", code 0
     */
    void connectToService();

protected:
    /** Called when the transport has been established and when raw mode is left; here it does nothing. */
    virtual void initialize();

    /** Called by disconnect(); here it only marks the connection as unconnected. */
    virtual void cleanup();

    /**
     * Asks the peer for the service: its name and CR LF, answered with the one byte '+'.
     * @return true when there is no service name or the peer answered '+'
     */
    virtual bool connectToServiceImpl();

    /**
     * Makes the transport usable; returns 0 at once when it is.
     * @param sExceptionMessage receives a text on failure
     * @return 0 or an errno value; a text with code 0 is a failure too
     */
    virtual int establishImpl(VornString& sExceptionMessage) = 0;

    bool m_bConnected;         ///< the transport is established
    bool m_bClientConnection;  ///< this end initiated the connection
    VornString m_sRemoteName;  ///< the peer as named at construction
    bool m_bRaw;               ///< raw mode; changes no byte
    VornString m_sServiceName; ///< the service to ask for, empty for none
    VornString m_sServerName;  ///< what getServerName() last found
    VornString m_sPortName;    ///< what getPortName() last found
    bool m_bLocalAccess;       ///< what setLocalAccess() was last told

private:
    VornConnection(const VornConnection&) = delete;
    VornConnection& operator=(const VornConnection&) = delete;
};

} // namespace VornNet

#endif
