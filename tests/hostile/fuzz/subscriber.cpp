// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// A hostile service for a subscriber in a program's own loop. Whatever it sends, events are called for in the
// order of their numbers, and what is left out is told as a gap; and when a sound service comes back, its
// event is called for. The input's first byte says how much of a sound exchange comes first; then come
// pieces, each with a byte that gives its length.

#include "Input.h"
#include "Sandbox.h"

#include <VornException.h>
#include <VornSubscriber.h>

#include <chrono>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace VornNet;

namespace {

/** History 1, first number 1, newest number 1, and a beat of a minute. */
const std::string admission("\0\1\0\0\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\1\0\0\xea\x60", 32);
/** The same of the history 2, and its first event. */
const std::string lastWord("+\0\1\0\0\0\0\0\0\0\0\0\2\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\1\0\0\xea\x60"
                           "\0\0\0\1\0\0\0\x08\0\0\0\0\0\0\0\1",
                           49);

int listenAtPipe() {
    sockaddr_un place{};
    place.sun_family = AF_UNIX;
    VornTest::pipePath("fuzz").copy(place.sun_path, sizeof place.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    require(::bind(fd, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0, "the service binds");
    require(::listen(fd, 8) == 0, "the service listens");
    return fd;
}

/** Looks at all that a subscriber tells. */
class Reader {
public:
    Reader() : m_subscriber("pipe:fuzz", "builds", eventHandler(), options()) {}

    /** Does all that there is to do now. */
    void drive() {
        pollfd entry{m_subscriber.getHandle(), POLLIN, 0};
        while (::poll(&entry, 1, 0) == 1)
            m_subscriber.dispatch();
    }

    /** Accepts its next connection. */
    int accept(int listener) {
        for (;;) {
            pollfd entries[2] = {{listener, POLLIN, 0}, {m_subscriber.getHandle(), POLLIN, 0}};
            require(::poll(entries, 2, 10'000) > 0, "the subscriber comes back");
            if (entries[1].revents != 0)
                m_subscriber.dispatch();
            const int fd = ::accept(listener, nullptr, nullptr);
            if (fd != -1)
                return fd;
        }
    }

    void awaitLastWord() {
        while (m_last.nHistory != 2) {
            pollfd entry{m_subscriber.getHandle(), POLLIN, 0};
            require(::poll(&entry, 1, 10'000) == 1, "the event of a sound service comes");
            m_subscriber.dispatch();
        }
        const VornSubscriber::Statistics sums = m_subscriber.statistics();
        require(sums.nEvents == m_events && sums.nGaps == m_gaps, "the sums are those of the calls");
    }

private:
    VornSubscriber::Options options() {
        VornSubscriber::Options options;
        options.bOwnThread = false;
        options.start = VornSubscriber::Start::oldest;
        options.firstPause = options.longestPause = std::chrono::milliseconds(1);
        options.answerLimit = std::chrono::minutes(1);
        options.nEventLimit = 4096;
        options.onGap = [this](const VornSubscriber::Gap& gap) {
            ++m_gaps;
            require(gap.last == m_last, "a gap begins where the last event was");
            require(gap.next.nHistory != 0, "a gap ends somewhere");
            m_next = gap.next;
        };
        return options;
    }

    VornSubscriber::EventHandler eventHandler() {
        return [this](VornConnection& content, const VornSubscriber::Event& event) {
            ++m_events;
            require(m_next.nHistory == 0 || (event.position.nHistory == m_next.nHistory &&
                                             event.position.nNumber == m_next.nNumber + 1),
                    "no event is left out without a gap");
            m_last = m_next = event.position;
            try {
                content.receiveString();
            } catch (const VornException&) { // NOLINT: what is no text is none
            }
        };
    }

    std::uint64_t m_events = 0;
    std::uint64_t m_gaps = 0;
    VornPosition m_last; // the last event called for
    VornPosition m_next; // behind what was called for or told of
    VornSubscriber m_subscriber;
};

void attack(int fd, Reader& reader, int soundParts, Input& input) {
    if (soundParts > 0)
        ::send(fd, "+", 1, MSG_NOSIGNAL);
    if (soundParts > 1)
        ::send(fd, admission.data(), admission.size(), MSG_NOSIGNAL);
    while (!input.empty()) {
        const std::string piece = input.text(input.byte());
        ::send(fd, piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        reader.drive();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int listener = listenAtPipe();
    Input input(data, size);
    const int soundParts = input.byte() % 3;
    Reader reader;
    int fd = reader.accept(listener);
    attack(fd, reader, soundParts, input);
    ::close(fd);
    fd = reader.accept(listener);
    ::send(fd, lastWord.data(), lastWord.size(), MSG_NOSIGNAL);
    reader.awaitLastWord();
    ::close(fd);
    return 0;
}
