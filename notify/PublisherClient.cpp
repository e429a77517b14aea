// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PublisherClient.h"

#include "DottedAddress.h"
#include "Wire.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <utility>

namespace VornNet {

namespace {

/** So that each has its turn soon, however much there is to send. */
constexpr std::size_t cMostAtATime = 65'536;

constexpr std::size_t cLongestLine = Wire::cLongestTopic + Wire::cLineEnd.size();

/** Lets the history go on at the end of a block, also when there is no memory for what is done there. */
struct Unpinning {
    explicit Unpinning(History& pinned) : history(pinned) {}

    ~Unpinning() { history.unpin(); }

    Unpinning(const Unpinning&) = delete;
    Unpinning& operator=(const Unpinning&) = delete;

    History& history;
};

/** Fills in what the kernel says of a pipe's client. */
void identify(int fd, VornPublisher::Subscriber& who) {
    ucred peer{-1, ~0U, ~0U};
    socklen_t size = sizeof peer;
    System::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    who.nProcess = peer.pid;
    who.nUser = peer.uid;
    who.nGroup = peer.gid;
    who.sFrom = "pid " + std::to_string(peer.pid) + " user " + std::to_string(peer.uid);
}

} // namespace

PublisherClient::PublisherClient(OwnedDescriptor accepted, const sockaddr_in* peer)
    : socket(std::move(accepted)) {
    if (peer != nullptr) {
        address = peer->sin_addr;
        who.sFrom = dottedAddress(address) + ":" + std::to_string(ntohs(peer->sin_port));
    } else {
        identify(socket.number(), who);
    }
}

int PublisherClient::receive() {
    std::array<char, SubscriptionRequest::cLongest> bytes;
    const std::size_t room = bytes.size() - std::min(m_sInput.size(), bytes.size() - 1);
    const ssize_t count = System::recv(socket.number(), bytes.data(), room, MSG_DONTWAIT);
    if (count == -1)
        return errno == EAGAIN || errno == EINTR ? 0 : errno;
    m_sInput.append(bytes.data(), static_cast<std::size_t>(count));
    return count == 0 ? ENOTCONN : 0;
}

std::optional<VornString> PublisherClient::takeLine() {
    const std::size_t length = std::string_view(m_sInput).substr(0, cLongestLine).find(Wire::cLineEnd);
    if (length == std::string_view::npos)
        return std::nullopt;
    VornString sLine = m_sInput.substr(0, length);
    m_sInput.erase(0, length + Wire::cLineEnd.size());
    return sLine;
}

bool PublisherClient::isLineTooLong() const {
    return m_sInput.size() >= cLongestLine;
}

int PublisherClient::discard() {
    std::array<char, 4096> bytes;
    const ssize_t count = System::recv(socket.number(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count == -1)
        return errno == EAGAIN || errno == EINTR ? 0 : errno;
    return count == 0 ? ENOTCONN : 0;
}

PublisherClient::Sent PublisherClient::admit(std::uint32_t beat) {
    using Begin = SubscriptionRequest::Begin;
    const History& history = topic->history;
    const History::Range range = history.range();
    const VornPosition asked = request->position();
    const bool isKnown = asked.nHistory == history.id() && asked.nNumber <= range.newest.number;
    if (request->begin() == Begin::next)
        place = range.newest;
    else if (request->begin() == Begin::last && range.newest.number != 0)
        place = history.placeBefore(range.newest.number);
    else if (request->begin() == Begin::after && isKnown)
        place = history.placeBefore(asked.nNumber + 1);
    else
        place = range.oldest;
    VornString sAnswer;
    Wire::appendInt(sAnswer, Wire::cAdmitted);
    Wire::appendNumber(sAnswer, history.id());
    Wire::appendNumber(sAnswer, place.number + 1);
    Wire::appendNumber(sAnswer, std::max(range.newest.number, place.number));
    Wire::appendInt(sAnswer, beat);
    say(sAnswer);
    Sent sent;
    if (request->begin() == Begin::after && (!isKnown || place.number != asked.nNumber))
        sayGap({history.id(), isKnown ? asked.nNumber + 1 : 0}, place.number + 1, sent);
    nSent = place.number;
    request.reset();
    VornString().swap(m_sInput); // ten thousand subscribers are to cost little
    return sent;
}

PublisherClient::Sent PublisherClient::send() {
    Sent sent;
    if ((m_sOutput.empty() || sendOutput(sent)) && !isCalledBack())
        sendEvents(sent);
    return sent;
}

std::optional<PublisherClient::Event> PublisherClient::nextEvent(Sent& sent) {
    History& history = topic->history;
    if (place.offset == history.endPlace())
        return std::nullopt;
    while (!history.pin(place.offset))
        fallOut(sent);
    const Unpinning unpinning(history);
    const History::Batch frame = history.batchAt(place.offset, 1);
    Event event{place.number + 1, VornString(frame.bytes + Wire::cEventHead, frame.size - Wire::cEventHead),
                place};
    place = History::after(frame, place.number, frame.size);
    return event;
}

void PublisherClient::skip(const Event& event, Sent& sent) {
    sayGap({topic->history.id(), event.nNumber}, event.nNumber + 1, sent);
}

PublisherClient::Sent PublisherClient::sendLast() {
    Sent sent;
    sendOutput(sent);
    return sent;
}

void PublisherClient::endSending() {
    System::shutdown(socket.number(), SHUT_WR);
}

/** @return whether all of it was sent */
bool PublisherClient::sendOutput(Sent& sent) {
    const std::size_t size = std::min(m_sOutput.size() - m_nOutputSent, cMostAtATime);
    const long count = put(m_sOutput.data() + m_nOutputSent, size, sent);
    if (count < 0)
        return false;
    m_nOutputSent += static_cast<std::size_t>(count);
    if (m_nOutputSent < m_sOutput.size()) {
        if (sent.outcome != Sent::Outcome::blocked)
            sent.outcome = Sent::Outcome::more;
        return false;
    }
    // Whoever has had a long frame's rest gives the memory back.
    VornString().swap(m_sOutput);
    m_nOutputSent = 0;
    if (topic != nullptr && !isCalledBack()) {
        sent.nEvents += place.number - std::min(nSent, place.number);
        nSent = place.number;
    }
    return true;
}

void PublisherClient::sendEvents(Sent& sent) {
    History& history = topic->history;
    if (place.offset == history.endPlace())
        return;
    sent.outcome = Sent::Outcome::more;
    if (!history.pin(place.offset))
        return fallOut(sent);
    const Unpinning unpinning(history);
    const History::Batch batch = history.batchAt(place.offset, cMostAtATime);
    const long count = put(batch.bytes, std::min(batch.size, cMostAtATime), sent);
    const std::size_t size = static_cast<std::size_t>(std::max(count, 0L));
    if (count > 0) {
        place = History::after(batch, place.number, size);
        sent.nEvents += place.number - nSent;
        nSent = place.number;
        // What the socket has taken in part is copied, so that the history waits for nobody.
        if (const std::size_t whole = place.offset - batch.offset; whole < size)
            keepRest(size - whole);
    }
    if (sent.outcome == Sent::Outcome::more && m_sOutput.empty() && place.offset == history.endPlace())
        sent.outcome = Sent::Outcome::all;
}

/** Copies what the socket has not taken of the next frame; @p taken bytes it has. */
void PublisherClient::keepRest(std::size_t taken) {
    const History::Batch frame = topic->history.batchAt(place.offset, 1);
    m_sOutput.assign(frame.bytes + taken, frame.size - taken);
    place = History::after(frame, place.number, frame.size);
}

/** What comes next has been written over: on with the oldest event. */
void PublisherClient::fallOut(Sent& sent) {
    const History::Place oldest = topic->history.oldest();
    sayGap({topic->history.id(), place.number + 1}, oldest.number + 1, sent);
    place = oldest;
    if (!isCalledBack())
        nSent = place.number;
}

void PublisherClient::sayGap(const VornPosition& missed, std::uint64_t next, Sent& sent) {
    VornString sFrame;
    Wire::appendInt(sFrame, Wire::cGap);
    Wire::appendInt(sFrame, Wire::cGapRest);
    Wire::appendNumber(sFrame, missed.nHistory);
    Wire::appendNumber(sFrame, missed.nNumber);
    Wire::appendNumber(sFrame, next);
    say(sFrame);
    ++sent.nGaps;
    sent.nMissed += missed.nNumber == 0 ? 0 : next - missed.nNumber;
}

/** @return how many bytes the socket took; -1 when it failed, and 0 when it takes none now */
long PublisherClient::put(const char* bytes, std::size_t size, Sent& sent) {
    const ssize_t count = System::send(socket.number(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count == -1 && errno != EAGAIN && errno != EINTR) {
        sent.nError = errno;
        return -1;
    }
    // A stream socket that takes a part is full.
    if (count < static_cast<ssize_t>(size))
        sent.outcome = Sent::Outcome::blocked;
    sent.nBytes += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    return std::max<ssize_t>(count, 0);
}

} // namespace VornNet
