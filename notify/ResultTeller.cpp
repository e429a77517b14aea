// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ResultTeller.h"

#include <Cancellation.h>
#include <LogRecord.h>
#include <VornException.h>

#include <exception>

namespace VornNet {

namespace {

constexpr const char* cThrown = "VornDispatcher::onResult: the result handler has thrown: ";

} // namespace

ResultTeller::ResultTeller(const VornDispatcher::Options& options, DispatchBook& book)
    : m_handler(options.onResult), m_book(book) {
    if (m_handler)
        m_thread.start(options.sName, [this] { run(); });
}

ResultTeller::~ResultTeller() {
    end();
}

void ResultTeller::end() {
    DispatchBook::Lock lock = m_book.lock();
    m_book.endResults();
    m_book.release(lock);
    m_thread.join();
}

void ResultTeller::run() {
    DispatchBook::Lock lock = m_book.lock();
    for (PostedNotifications results; m_book.awaitResults(lock, results); lock.lock()) {
        m_book.release(lock);
        for (; !results.empty(); m_book.release(lock)) {
            const std::uint64_t nTicket = results.front().result.nTicket;
            tell(results.front().result);
            results.pop_front();
            lock.lock();
            m_book.settle(nTicket);
        }
    }
}

void ResultTeller::tell(const VornDispatcher::Result& result) const {
    try {
        m_handler(result);
    } catch (const VornException& e) {
        logRecord(
            VornLogging::cError, cThrown, [&e] { return e.getText(); }, " (", e.getCode(), ")");
    } catch (const std::exception& e) {
        logRecord(VornLogging::cError, cThrown, e.what());
    } catch (...) {
        if (isCancellation())
            throw;
        logRecord(VornLogging::cError, cThrown, "an object of another type");
    }
}

} // namespace VornNet
