// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ResultTeller.h"

#include "HandlerCall.h"

namespace VornNet {

namespace {

constexpr const char* cThrown = "VornDispatcher::onResult: the result handler threw: ";

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
    callHandler(VornLogging::cError, cThrown, [&] { m_handler(result); });
}

} // namespace VornNet
