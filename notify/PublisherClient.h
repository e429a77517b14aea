// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PUBLISHERCLIENT_H
#define VORNNOTIFY_PUBLISHERCLIENT_H

#include "HandlerThread.h"
#include "OwnedDescriptor.h"
#include "PublisherTopic.h"
#include "SubscriptionRequest.h"
#include "VornPublisher.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include <netinet/in.h>

namespace VornNet {

class ClientList;

/**
 * One connection of a publisher, from its acceptance to its end; used by the sending thread alone, but for
 * what the lock of the book of subscribers guards.
 */
class PublisherClient {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    enum class State {
        line,     ///< the service handshake is awaited
        request,  ///< the request is awaited
        checking, ///< the handler is asked
        live,     ///< subscribed
        closing,  ///< the last word is said; the client is to close
        gone      ///< closed
    };

    /** What a call of send() has come to. */
    struct Sent {
        enum class Outcome {
            all,    ///< there is nothing more to send
            more,   ///< there is
            blocked ///< the socket takes no more
        };
        Outcome outcome = Outcome::all;
        int nError = 0;            ///< the connection has failed with this, if it is not 0
        std::size_t nBytes = 0;    ///< bytes sent
        std::uint64_t nEvents = 0; ///< events that are sent completely now, and were not before
        std::uint64_t nGaps = 0;   ///< gaps told of
        std::uint64_t nMissed = 0; ///< events in them
    };

    /** A callback address: kept by all who have named it, and by what is on its way there. */
    struct Sink {
        VornString sKey;        ///< see CallbackEndpoint
        TimePoint hasTakenAt{}; ///< when it took something last, also if it was for one who has left
    };

    /** An event that the dispatcher has and that has no outcome yet. */
    struct Posted {
        std::uint64_t nTicket = 0;
        std::uint64_t nNumber = 0;
        std::size_t nBytes = 0;
    };

    /** An event for the callback address, copied. */
    struct Event {
        std::uint64_t nNumber = 0;
        VornString sContent;
        History::Place before; ///< its place, to go back to
    };

    /** What the program is told of a subscriber that is no more. */
    struct Farewell {
        VornPublisher::Subscriber who;
        VornPublisher::Leaving leaving = VornPublisher::Leaving::closed;
        int nCode = 0;
    };

    /** Takes an accepted socket over. @param peer its other end over TCP; null over a pipe */
    PublisherClient(OwnedDescriptor socket, const sockaddr_in* peer);

    /** Takes in what the client has sent. @return 0, an errno value, or 107 (ENOTCONN) at the end */
    int receive();

    /** @return the line that has come, if it has come completely. */
    std::optional<VornString> takeLine();

    /** @return whether there is no line, and none can come. */
    bool isLineTooLong() const;

    /** @return whether the request has come completely. */
    bool readRequest(bool mayCallBack) { return request->read(m_sInput, mayCallBack); }

    /** Throws the input away: for clients that are not to send any more. @return as receive() */
    int discard();

    /** Sends what does not come from the history after all that is being sent. */
    void say(std::string_view bytes) { m_sOutput.append(bytes); }

    bool hasOutput() const { return !m_sOutput.empty(); }

    /** @return whether so much waits to be sent that no more gaps should be said. */
    bool hasMuchOutput() const { return m_sOutput.size() - m_nOutputSent > cMuchOutput; }

    /** Finds its place in the history, and puts the answer to its request together. */
    Sent admit(std::uint32_t beat);

    /** Sends at most about 64 KiB: what say() was given, then events, and a gap before them if there is one.
     */
    Sent send();

    /** @return whether its events go to a callback address, so that the connection is only its lease. */
    bool isCalledBack() const { return !who.sCallback.empty(); }

    /** @return the next event for the callback address, if there is one; a gap before it is said here. */
    std::optional<Event> nextEvent(Sent& sent);

    /** Goes back to before an event, to post it again. */
    void goBackTo(const History::Place& before) { place = before; }

    /** Says a gap in place of an event that the callback address cannot take. */
    void skip(const Event& event, Sent& sent);

    /** Brings nSent up to date with what is posted. */
    void noteSent() { nSent = posted.empty() ? place.number : posted.front().nNumber - 1; }

    /** Sends only what say() was given. */
    Sent sendLast();

    /** Ends the sending side. */
    void endSending();

    State state = State::line;
    in_addr address{}; // over TCP
    OwnedDescriptor socket;
    VornPublisher::Subscriber who; // once it is admitted, guarded by the book's lock
    PublisherTopic* topic = nullptr;
    std::size_t nIndex = 0;                                    // among the topic's subscribers
    std::optional<SubscriptionRequest> request{std::in_place}; // until it is admitted
    History::Place place;                                      // of what is handed to the socket next
    std::uint64_t nSent = 0;                   // the last event that is sent completely, and all before it
    TimePoint since{};                         // when it was put into its list, whose order this is
    ClientList* list = nullptr;                // where it is
    std::list<PublisherClient>::iterator self; // its place there
    std::shared_ptr<Sink> spSink;              // its callback address
    std::vector<Posted> posted;                // on their way there, oldest first
    TimePoint postsSince{};                    // from when on something has been
    std::uint32_t nAwaited = 0;                // the events that the poll looks for
    std::shared_ptr<Farewell> spFarewell;      // prepared at its admission, with the call that hands it over:
    HandlerThread::Calls farewellCall;         // a subscriber also leaves when there is no memory
    bool isDropped = false;                    // drop() was called: guarded by the book's lock

private:
    static constexpr std::size_t cMuchOutput = 4096;

    bool sendOutput(Sent& sent);
    void sendEvents(Sent& sent);
    void keepRest(std::size_t taken);
    void fallOut(Sent& sent);
    void sayGap(const VornPosition& missed, std::uint64_t next, Sent& sent);
    long put(const char* bytes, std::size_t size, Sent& sent);

    VornString m_sInput;
    VornString m_sOutput; // what is sent before anything else, such as the rest of a frame
    std::size_t m_nOutputSent = 0;
};

} // namespace VornNet

#endif
