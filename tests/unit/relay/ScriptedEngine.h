// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SCRIPTEDENGINE_H
#define VORNTEST_SCRIPTEDENGINE_H

#include <Engine.h>
#include <RelayLoop.h>

#include <Await.h>
#include <Posix.h>

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace VornTest {

/** Keeps what it is asked for, and answers as the test says. Consumers are open at once, unless it says
 * otherwise. */
class ScriptedEngine : public VornRelay::Engine {
public:
    void publish(const Message& message, AnswerHandler onAnswer) override {
        m_published.emplace_back(message, std::move(onAnswer));
    }

    void open(const std::string& sConsumer, const std::string& sFilter, OpenHandler onOpened) override {
        opened.emplace_back(sConsumer + " " + sFilter);
        if (bOpensAtOnce)
            onOpened({});
        else
            onConsumerOpened = std::move(onOpened);
    }

    void close(const std::string& sConsumer) override { closed.push_back(sConsumer); }

    void pull(const std::string&, std::size_t nCount) override { pulled.push_back(nCount); }

    std::chrono::milliseconds pullLife() const override { return life; }

    void acknowledge(const std::string& sReceipt) override { acknowledged.push_back(sReceipt); }

    void tell(const std::string& sSubject, const std::string& sText) override {
        told.push_back(sSubject + " " + sText);
    }

    void listenTo(const std::string& sSubject) override { listenedTo.insert(sSubject); }

    void ignore(const std::string& sSubject) override { listenedTo.erase(sSubject); }

    void read(const std::string& sStream, const std::string& sSubject, std::uint64_t nFrom,
              StoredHandler onStored) override {
        m_reads.emplace_back(sStream + " " + sSubject + " " + std::to_string(nFrom), std::move(onStored));
    }

    void measure(FillHandler) override {}

    void listHosts(HostsHandler onAnswer) override { onHostsListed = std::move(onAnswer); }

    std::size_t mostContent() const override { return nMostContent; }

    /** Answers the oldest message without an answer. @return "content/number" */
    std::string answer(Answer answer, const std::string& sText = {}) {
        const auto [message, onAnswer] = std::move(m_published.front());
        m_published.pop_front();
        onAnswer(answer, sText);
        return message.sContent + "/" + std::string(message.header("Nats-Msg-Id"));
    }

    /** Answers the oldest question for a stored message. @return "stream subject from" */
    std::string answerRead(const Stored& stored) {
        const auto [sWhich, onStored] = std::move(m_reads.front());
        m_reads.pop_front();
        onStored(stored);
        return sWhich;
    }

    /** @return what is asked first. */
    const std::string& nextRead() const { return m_reads.front().first; }

    std::size_t unread() const { return m_reads.size(); }

    /** Forgets everything, as a relay does that is killed. */
    void reset() {
        m_published.clear();
        m_reads.clear();
        for (auto* list : {&opened, &closed, &acknowledged, &told})
            list->clear();
    }

    std::size_t unanswered() const { return m_published.size(); }

    /** @return the message without an answer at that place. */
    const Message& published(std::size_t nPlace) const { return m_published.at(nPlace).first; }

    std::size_t nMostContent = 1000;
    std::vector<std::size_t> pulled; ///< numbers asked for
    std::chrono::milliseconds life{5000};
    bool bOpensAtOnce = true;
    OpenHandler onConsumerOpened;    ///< of the last one that did not open at once
    HostsHandler onHostsListed;      ///< of the last question
    std::vector<std::string> opened; ///< "consumer filter"
    std::vector<std::string> closed;
    std::vector<std::string> acknowledged;
    std::vector<std::string> told; ///< "subject text"
    std::set<std::string> listenedTo;

private:
    std::deque<std::pair<std::string, StoredHandler>> m_reads;
    std::deque<std::pair<Message, AnswerHandler>> m_published;
};

/** Runs a loop until a condition holds. @return false when it does not in time */
inline bool runUntil(VornRelay::RelayLoop& loop, const std::function<bool()>& condition,
                     std::chrono::milliseconds limit = defaultLimit) {
    const auto until = VornRelay::RelayLoop::Clock::now() + limit;
    const std::function<void()> look = [&] {
        if (condition() || VornRelay::RelayLoop::Clock::now() > until)
            loop.end();
        else
            loop.after(std::chrono::milliseconds(1), look);
    };
    look();
    loop.run();
    return condition();
}

/** Has a loop of another thread call a function. @return what it returns */
template <typename Function>
auto onLoop(VornRelay::RelayLoop& loop, Function function) {
    std::packaged_task<decltype(function())()> call(function);
    loop.post([&call] { call(); });
    return call.get_future().get();
}

/** @return how reading to the end ends: 0, or the error. */
inline int endOf(const UniqueFd& peer) {
    try {
        receiveToEnd(peer.get());
        return 0;
    } catch (const std::system_error& error) {
        return error.code().value();
    }
}

} // namespace VornTest

#endif
