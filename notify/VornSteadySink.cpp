// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornSteadySink.h"

#include "EventPoll.h"
#include "HomeProcess.h"
#include "PipeSource.h"
#include "QuietThread.h"
#include "SinkAddress.h"
#include "SinkCaller.h"
#include "SinkLine.h"
#include "SinkReader.h"
#include "SinkSettings.h"
#include "TcpSource.h"
#include "UdpSource.h"

#include <LogRecord.h>
#include <VornException.h>

#include <cerrno>
#include <exception>
#include <new>
#include <system_error>

namespace VornNet {

namespace {

constexpr const char* cInvalidOption = "VornSteadySink::VornSteadySink: invalid option.";
constexpr const char* cOpenFailed = "VornSteadySink::VornSteadySink: failed to open server.";
constexpr const char* cStartFailed = "VornSteadySink::VornSteadySink: failed to start.";

/** Does a step of the construction; the text says what has failed. */
template <typename Step>
auto attempt(const char* text, Step&& step) {
    try {
        return step();
    } catch (const std::system_error& error) {
        throw VornException(text, error.code().value());
    }
}

std::unique_ptr<NotificationSource> openSource(const SinkSettings& settings, SinkAddress& address) {
    if (settings.kind == VornSteadySink::Kind::tcp)
        return std::make_unique<TcpSource>(settings);
    if (settings.kind == VornSteadySink::Kind::udp)
        return std::make_unique<UdpSource>(settings);
    return std::make_unique<PipeSource>(settings, address);
}

} // namespace

/** Everything that a sink is made of, in the order in which it is needed. */
class VornSteadySink::State {
public:
    State(const VornString& sName, const Options& options)
        : m_settings(attempt(cInvalidOption, [&] { return SinkSettings::check(options); })),
          m_address(sName, options.onAddressChange),
          m_spSource(attempt(cOpenFailed, [this] { return openSource(m_settings, m_address); })),
          m_spPoll(attempt(cStartFailed, [] { return std::make_unique<EventPoll>(); })),
          m_line(m_settings, *m_spPoll),
          m_spReader(attempt(
              cStartFailed,
              [this] { return std::make_unique<SinkReader>(m_settings, *m_spSource, *m_spPoll, m_line); })),
          m_caller(m_container, m_line) {
        m_address.set(m_spSource->address());
        try {
            attempt(cStartFailed, [&] {
                m_callingThread.start(sName, [this] { m_caller.run(); });
                m_readingThread.start(sName, [this] { m_spReader->run(); });
            });
        } catch (...) {
            end();
            m_callingThread.join();
            throw;
        }
    }

    ~State() {
        end();
        m_callingThread.join();
    }

    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /** Ends everything but the callback or handler that is running. */
    void end() {
        m_line.close();
        m_readingThread.join();
        m_spSource.reset(); // nobody comes any more while the last callback runs
    }

    bool isForked() const { return m_home.isForked(); }

    /** @return whether the caller is a callback or the address handler. */
    bool isOwnThread() const { return m_callingThread.isCurrent() || m_address.isHandlerThread(); }

    VornCallbackContainer& container() { return m_container; }

    const SinkAddress& address() const { return m_address; }

    const SinkLine& line() const { return m_line; }

private:
    const HomeProcess m_home;
    VornCallbackContainer m_container;
    const SinkSettings m_settings;
    SinkAddress m_address;
    std::unique_ptr<NotificationSource> m_spSource;
    const std::unique_ptr<EventPoll> m_spPoll;
    SinkLine m_line;
    const std::unique_ptr<SinkReader> m_spReader;
    SinkCaller m_caller;
    QuietThread m_callingThread;
    QuietThread m_readingThread;
};

VornSteadySink::VornSteadySink(const VornString& moduleName) : VornSteadySink(moduleName, Options()) {}

VornSteadySink::VornSteadySink(const VornString& moduleName, const Options& options) try
    : m_spState(std::make_unique<State>(moduleName, options)) {
} catch (const std::bad_alloc&) {

    throw VornException(cStartFailed, ENOMEM);
}

VornSteadySink::~VornSteadySink() {
    const bool isOwnThread = m_spState->isOwnThread();
    const bool isForked = m_spState->isForked();
    if (isForked || (isOwnThread && QuietThread::isExiting())) {
        // In a child the threads and the pipe's file are the parent's, and a callback that has called exit()
        // cannot be waited for.
        State* left = m_spState.release();
        if (!isForked)
            left->end();
        return;
    }
    if (isOwnThread) {
        logRecord(VornLogging::cError,
                  "VornSteadySink::~VornSteadySink: destroyed by one of its own callbacks");
        std::terminate(); // the thread would have to end before its own call returns
    }
}

VornCallbackContainer& VornSteadySink::getCallbackContainer() {
    return m_spState->container();
}

VornString VornSteadySink::getCallbackAddress() const {
    return m_spState->address().get();
}

VornSteadySink::Statistics VornSteadySink::statistics() const {
    return m_spState->line().statistics();
}

} // namespace VornNet
