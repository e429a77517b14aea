// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_ENGINE_H
#define VORNRELAY_ENGINE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VornRelay {

/**
 * What a relay asks of the engine that stores and carries its messages: publish, pull, acknowledge.
 *
 * There is one implementation, NatsEngine. Order and duplicates are kept by the relay, not by the engine, so
 * another engine needs no more than this. It connects by itself, again and again, and tells its listener.
 *
 * Thread-safety: all functions are called, and all callbacks come, on the thread of one RelayLoop. Blocking:
 * none. Ownership: the listener must outlive the engine. Signals: none raised. Errors: told to callbacks.
 */
class Engine {
public:
    /** A header of a message: name and value. */
    using Header = std::pair<std::string, std::string>;

    /** What is published. */
    struct Message {
        std::string sSubject;
        std::vector<Header> headers;
        std::string sContent;

        /** @return the value of a header, empty when there is none. */
        std::string_view header(std::string_view sName) const {
            for (const auto& [sKey, sValue] : headers) {
                if (sKey == sName)
                    return sValue;
            }
            return {};
        }
    };

    /** A message that was pulled, and has to be acknowledged. */
    struct Arrival {
        std::string sConsumer;       ///< through which it came
        std::string sReceipt;        ///< what acknowledge() takes; a newer one replaces an older one
        std::uint64_t nPosition = 0; ///< its place in the stream: the same when it comes again
        std::uint64_t nDelivery = 0; ///< how many the consumer has handed out, with this one
        Message message;
    };

    /** What became of a published message. */
    enum class Answer {
        stored,  ///< it is stored as the engine's settings promise
        full,    ///< not stored: there is no room for it now
        refused, ///< not stored, and never will be
        absent,  ///< not stored: there is no stream for it now
        unknown  ///< no answer came: it may be stored or not
    };

    /** What became of opening a consumer. */
    struct Opened {
        std::string sError;            ///< empty when it is open
        std::uint64_t nHandedOut = 0;  ///< the highest position that it had handed out before
        std::uint64_t nUnanswered = 0; ///< how many up to there are not acknowledged, and will come again
        std::uint64_t nDeliveries = 0; ///< how many times it had handed out one
        std::chrono::milliseconds comesAgain{0}; ///< within this time; 0: it is new, and all comes in order
    };

    /** How full a stream is. */
    struct Fill {
        std::uint64_t nMessages = 0;
        std::uint64_t nBytes = 0;
        std::int64_t nMostBytes = -1;    ///< -1: no limit
        std::int64_t nMostMessages = -1; ///< -1: no limit
    };

    /** A message as it lies in somebody's stream. */
    struct Stored {
        std::string sError;          ///< why it is not told; empty when it is
        std::uint64_t nPosition = 0; ///< its place in the stream; 0: there is none
        Message message;
    };

    /** What an engine tells without being asked. */
    class Listener {
    public:
        virtual ~Listener() = default;

        /** The engine can be reached, and nothing of what was open before is. */
        virtual void connected() = 0;

        /** The connection was lost, or could not be had. Everything without an answer has got `unknown`. */
        virtual void disconnected(const std::string& sWhy) = 0;

        /** A message that pull() has asked for. */
        virtual void arrived(Arrival&& arrival) = 0;

        /** The oldest pull() has ended before all that it asked for has come. */
        virtual void pullEnded(const std::string& sConsumer) = 0;

        /** The consumer is not there, so that it has to be opened. */
        virtual void consumerLost(const std::string& sConsumer) = 0;

        /** Somebody has called tell() with a subject that was listened to. */
        virtual void told(const std::string& sSubject, const std::string& sText) = 0;
    };

    using AnswerHandler = std::function<void(Answer answer, const std::string& sText)>;
    using OpenHandler = std::function<void(const Opened& opened)>;
    using StoredHandler = std::function<void(const Stored& stored)>;
    using FillHandler = std::function<void(const Fill* pFill)>;
    using HostsHandler = std::function<void(const std::vector<std::string>* pHosts)>;

    virtual ~Engine() = default;

    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /** Sends a message; @p onAnswer is called once, never before this returns. Its text says why it was not
     * stored, or at which position it is. */
    virtual void publish(const Message& message, AnswerHandler onAnswer) = 0;

    /** Closes a consumer of the own stream if there is one, and opens it anew, so that all that has not been
     * acknowledged comes again, in order. Where that is not granted, the consumer is used as it stands, and
     * what it has handed out before comes again later. @param onOpened is called once
     */
    virtual void open(const std::string& sConsumer, const std::string& sFilter, OpenHandler onOpened) = 0;

    /** Removes a consumer for good. */
    virtual void close(const std::string& sConsumer) = 0;

    /** Asks for up to @p nCount messages. */
    virtual void pull(const std::string& sConsumer, std::size_t nCount) = 0;

    /** @return the time after which a pull() ends, perhaps without being told. */
    virtual std::chrono::milliseconds pullLife() const = 0;

    /** Has a message removed from the stream. It may get lost; the message then comes again. */
    virtual void acknowledge(const std::string& sReceipt) = 0;

    /** Tells those who listen at this moment; may get lost. */
    virtual void tell(const std::string& sSubject, const std::string& sText) = 0;

    /** Has what others tell on that subject told to the listener. */
    virtual void listenTo(const std::string& sSubject) = 0;

    /** Ends that. */
    virtual void ignore(const std::string& sSubject) = 0;

    /** Asks for a message of that subject in any stream: the first one from position @p nFrom on, or for 0
     * the newest. @param onStored is called once */
    virtual void read(const std::string& sStream, const std::string& sSubject, std::uint64_t nFrom,
                      StoredHandler onStored) = 0;

    /** Asks how full the own stream is; @p onAnswer gets null when that is not told. */
    virtual void measure(FillHandler onAnswer) = 0;

    /** Asks which hosts have a stream; @p onAnswer gets null when that is not told. */
    virtual void listHosts(HostsHandler onAnswer) = 0;

    /** @return the longest content, headers included, that can be published; 0 before the first connection */
    virtual std::size_t mostContent() const = 0;

protected:
    Engine() = default;
};

} // namespace VornRelay

#endif
