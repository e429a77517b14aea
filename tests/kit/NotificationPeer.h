// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_NOTIFICATIONPEER_H
#define VORNTEST_NOTIFICATIONPEER_H

#include "Await.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Posix.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <VornConnection.h>
#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>
#include <VornSmartPointer.h>

/**
 * @file
 * What the tests of notifications have in common: sinks that are watched, callbacks that remember, and
 * senders of plain POSIX calls.
 */
namespace VornTest {

/** The roads on which a sink can be reached. */
enum class Kind { pipe, socket, udp };

/** As in callback addresses and in the environment variable. */
std::string nameOf(Kind kind);

/** For GoogleTest's messages and names of tests. */
void PrintTo(Kind kind, std::ostream* out);

/** Makes sinks of that kind the ones which are made. */
void useKind(Kind kind);

/** Makes @p value what the environment says about the kind. */
void useTypeText(const std::string& value);

/** A number as it travels. */
std::string onWire(long value);

/** The system's number of the only thread with this name; 0 if there is none. */
pid_t tidOfThread(const std::string& name);

/** Processor time that a process or a thread has used. @param task its directory in /proc */
std::chrono::milliseconds processorTime(const std::string& task);

/** The same of a thread of this process. */
inline std::chrono::milliseconds processorTime(pid_t tid) {
    return processorTime("/proc/self/task/" + std::to_string(tid));
}

/** What is left of the connection, read byte by byte until the other side has closed. */
std::string readToEnd(VornNet::VornConnection& connection);

/** A sink with its inside open to tests. */
class SinkProbe : public VornNet::VornLibraryCallbackSink {
public:
    using VornLibraryCallbackSink::VornLibraryCallbackSink;

    using VornLibraryCallbackSink::establishCallbackServer;
    using VornLibraryCallbackSink::m_bThreadStarted;
    using VornLibraryCallbackSink::m_nCallbackServerPort;
    using VornLibraryCallbackSink::m_sCallbackName;
    using VornLibraryCallbackSink::m_sCallbackType;
    using VornLibraryCallbackSink::m_sIpAddr;
    using VornLibraryCallbackSink::m_spCallbackServer;
    using VornLibraryCallbackSink::tryNextPort;
    using VornLibraryCallbackSink::waitForServerPort;
};

/** A sink whose thread is known. */
class WatchedSink {
public:
    explicit WatchedSink(Kind kind, const std::string& name = "sink");

    SinkProbe* operator->() const { return m_sink.get(); }

    SinkProbe& operator*() const { return *m_sink; }

    pid_t tid() const { return m_tid; }

    /** Waits until the sink's thread waits for a client. What came before must be known to be over. */
    bool awaitServing() const;

    /** Waits until the sink's thread waits for bytes of a client of a stream kind. */
    bool awaitReading() const;

    /** Waits until run() has returned or thrown. */
    bool awaitEnd() const { return m_sink->wait(static_cast<int>(defaultLimit.count())); }

    std::string address() const { return m_sink->getCallbackAddress(); }

    /** Destroys the sink. */
    void destroy() { m_sink.reset(); }

private:
    Kind m_kind;
    std::unique_ptr<SinkProbe> m_sink;
    pid_t m_tid;
};

/** A callback that remembers what it was called with. */
class RecordingCallback : public VornNet::VornNotificationCallback {
public:
    /** What is done with a connection; the result is remembered. */
    using Action = std::function<std::string(VornNet::VornSmartPointer<VornNet::VornConnection>&)>;

    RecordingCallback(int id, Action action);

    /** The contents of the notifications so far. */
    std::vector<std::string> contents() const;

    int calls() const { return static_cast<int>(contents().size()); }

    /** Waits until there have been at least @p count calls. */
    bool awaitCalls(int count) const;

protected:
    void doCallback(VornNet::VornSmartPointer<VornNet::VornConnection>& connection) override;

private:
    Action m_action;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_contents;
};

using CallbackPointer = VornNet::VornSmartPointer<RecordingCallback>;

/** Registers a callback under the next id; without an action it reads to the end of the stream. */
CallbackPointer addCallback(VornNet::VornLibraryCallbackSink& sink, RecordingCallback::Action action = {});

/** The same under an id of the test's choice. */
CallbackPointer addCallbackAs(int id, VornNet::VornLibraryCallbackSink& sink,
                              RecordingCallback::Action action = {});

/** The pipe directory is out of the way while this exists. */
class MissingPipeDirectory {
public:
    MissingPipeDirectory();
    ~MissingPipeDirectory();
    MissingPipeDirectory(const MissingPipeDirectory&) = delete;
    MissingPipeDirectory& operator=(const MissingPipeDirectory&) = delete;

    /** Where a pipe that was there before is now. */
    std::string pathNow(const std::string& name) const;

private:
    std::string m_name;
};

/** Something that one thread opens for others. */
class Gate {
public:
    void open() { m_isOpen = true; }

    bool isOpen() const { return m_isOpen; }

    /** Waits until it is open; false if that takes too long. */
    bool await() const {
        return awaitCondition([this] { return isOpen(); });
    }

private:
    std::atomic<bool> m_isOpen{false};
};

/** A callback that waits in the middle until it is let go on. */
class HeldCallback {
public:
    /** For a callback's action: reads everything, tells that it is there, and waits. */
    RecordingCallback::Action action();

    /** The same, with something else that is done before it waits, or afterwards with what it returns. */
    RecordingCallback::Action action(RecordingCallback::Action before, RecordingCallback::Action after);

    bool awaitEntered() { return m_entered.await(); }

    void letGoOn() { m_goesOn.open(); }

private:
    Gate m_entered;
    Gate m_goesOn;
};

/** Lets pass a time in which something is counted, or must not happen. */
void letPass(std::chrono::milliseconds time);

/** A callback address taken apart. */
struct Target {
    explicit Target(const std::string& address);

    std::string kind;
    std::string place; ///< the name of the pipe, or the host
    int port = 0;
};

/** A connection of plain POSIX calls to a sink of a stream kind. */
UniqueFd connectToSink(const std::string& address);

/** The same when the sink is waiting, with bytes that are sent. */
UniqueFd connectWhenServing(const WatchedSink& sink, const std::string& data);

/** Sends the bytes to a sink as one notification, and closes. */
void sendByHand(const std::string& address, const std::string& data);

/** The same when the sink is waiting. */
void sendWhenServing(const WatchedSink& sink, const std::string& data);

/** The same, and returns when the callback has been called. */
void deliver(const WatchedSink& sink, const CallbackPointer& callback, const std::string& content);

/** The records of the class, each with its level in front. */
std::vector<std::string> recordsOf(const std::string& className, const LogCapture& log);

/** The same of the sink's class, and how one of them looks. @{ */
std::vector<std::string> sinkRecords(const LogCapture& log);
std::string debugRecord(const std::string& text);
/** @} */

/** The name of the first pipe of this process. */
std::string ownPipeName();

/** The address of the first sink of that kind in a process, and one with another port. @{ */
std::string firstAddress(Kind kind);
std::string addressWithPort(Kind kind, int port);

/** @} */

/** Sends notifications for id 0 without pause, wherever it is aimed at, while it exists. */
class Traffic {
public:
    explicit Traffic(int threads);
    ~Traffic();

    void aim(const std::string& address);

private:
    void send();
    std::string target();

    std::mutex m_mutex;
    std::string m_target;
    std::atomic<bool> m_ends{false};
    std::vector<std::thread> m_threads;
};

/** A test in a network of its own. */
class NotificationTest : public LeakCheckedTest {
protected:
    void SetUp() override;
    void TearDown() override;
};

/** The same for each kind of sink. */
class NotificationTestOfKind : public NotificationTest, public testing::WithParamInterface<Kind> {};

/**
 * The life of a client in a process of its own: it prints the address of its sink, then the bytes of each
 * notification. A line of input is answered, when the sink is waiting, with the address that it has then: a
 * sink that cannot bind its port again has moved to the next. The end of the input ends it.
 */
int liveAsClient();

} // namespace VornTest

#endif
