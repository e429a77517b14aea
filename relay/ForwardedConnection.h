// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_FORWARDEDCONNECTION_H
#define VORNRELAY_FORWARDEDCONNECTION_H

#include "ForwardPiece.h"
#include "ForwardSubject.h"
#include "RelayLoop.h"

#include <CallbackEndpoint.h>
#include <OwnedDescriptor.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace VornRelay {

/**
 * One end of a forwarded connection: a socket on this host, whose bytes are told to the other host's relay
 * piece by piece, and which is given the bytes that are told from there.
 *
 * What the engine carries may get lost. So each piece says where its bytes belong, and what does not follow
 * upon what came before ends the connection with a reset: the peer gets all bytes and the end, or an error.
 * Each end may have as many bytes under way as the other has granted; so a slow reader holds up nobody else.
 * When both directions have ended and been told, the other host is not needed any more.
 *
 * A close resets a pipe only if there are unread bytes in it. So the last byte of what the peer has sent is
 * looked at and told, and taken out only with the next one, or at the end in order. A peer that has sent
 * nothing sees an end in place of a reset over a pipe, not over TCP. When the relay is killed, it is the
 * same.
 *
 * Thread-safety: none, all on the loop's thread. Blocking: none. Ownership: of the socket; loop and owner
 * must outlive it. Signals: none raised. Errors: told to the owner.
 */
class ForwardedConnection : public RelayLoop::Handler {
public:
    /** Most bytes of one direction that are under way, and that wait for a slow reader. */
    static constexpr std::size_t window = 262'144;

    /** After this time without a piece one is told, so that the other end knows of this one. */
    static constexpr std::chrono::milliseconds keepAlive{3000};

    /** After this time without a piece from the other end it is taken for gone. */
    static constexpr std::chrono::milliseconds longestSilence{10'000};

    /** Whom it tells things. */
    class Owner {
    public:
        virtual ~Owner() = default;

        /** A piece is to be told to the other end. */
        virtual void tell(const ForwardSubject& subject, const ForwardPiece& piece) = 0;

        /** It is over and its socket closed. @param sWhy it was reset; empty when all went well */
        virtual void ended(ForwardedConnection& connection, const std::string& sWhy) = 0;

        /** @return the most bytes that a piece may have. */
        virtual std::size_t mostBytes() const = 0;
    };

    /** The client's end, with his socket. @param subject that this end tells its pieces to */
    ForwardedConnection(RelayLoop& loop, Owner& owner, ForwardSubject subject,
                        VornNet::OwnedDescriptor&& socket);

    /** The service's end, which connects to the service. */
    ForwardedConnection(RelayLoop& loop, Owner& owner, ForwardSubject subject,
                        const VornNet::CallbackEndpoint& service);

    ~ForwardedConnection() override { close(); }

    ForwardedConnection(const ForwardedConnection&) = delete;
    ForwardedConnection& operator=(const ForwardedConnection&) = delete;

    /** Begins. It may end at once. */
    void begin();

    /** The other end has told a piece. */
    void take(const ForwardPiece& piece);

    /** To be called now and then: sees whether the other end is still there, and tells it of this one. */
    void look(RelayLoop::Clock::time_point now);

    /** The engine is lost, and pieces with it: ends with a reset unless nothing more is to be told. */
    void engineLost();

    /** Ends with a reset, which is told to the other end. */
    void reset(const std::string& sWhy);

    /** Closes the socket with a reset, and tells nobody. */
    void close();

    const ForwardSubject& subject() const { return m_subject; }

private:
    void ready(std::uint32_t nEvents) override;

    void connect();
    void connected();
    void watch();
    void work();
    void write();
    void read();
    bool readOnce();
    void takeOut(std::size_t nBytes);
    bool isAtEnd();
    void tell(std::uint8_t nFlags, std::string_view sBytes = {});

    std::uint64_t limit() const { return m_nReceived - m_sWaiting.size() + window; }

    /** @return whether the other end is not needed any more. */
    bool isTold() const { return m_bOver || !m_sLost.empty() || (m_bEnded && m_bPeerEnded); }

    void finish();
    void abort(const std::string& sWhy);
    void lingerOnClose(bool bReset) const;

    RelayLoop& m_loop;
    Owner& m_owner;
    const ForwardSubject m_subject;
    const std::optional<VornNet::CallbackEndpoint> m_service; // the client's end has none
    VornNet::OwnedDescriptor m_socket;
    bool m_bConnecting = false;
    bool m_bOpening = false;   // the other end has not answered
    bool m_bHungUp = false;    // all that the peer has sent is in the socket
    bool m_bLeft = false;      // the first byte in the socket has been told
    bool m_bEnded = false;     // all that the peer has sent is told
    bool m_bPeerEnded = false; // all that the other end's peer has sent is here
    bool m_bShutDown = false;  // and is with this one
    bool m_bOver = false;
    std::string m_sLost;           // why the other end has reset it
    std::uint64_t m_nTold = 0;     // bytes
    std::uint64_t m_nMayTell = 0;  // bytes
    std::uint64_t m_nReceived = 0; // bytes
    std::uint64_t m_nGranted = 0;  // limit() as it was told last
    std::string m_sWaiting;        // received, for the peer
    RelayLoop::Clock::time_point m_lastTold;
    RelayLoop::Clock::time_point m_lastHeard;
};

} // namespace VornRelay

#endif
