// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_PUBLISHERTOPIC_H
#define VORNNOTIFY_PUBLISHERTOPIC_H

#include "History.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace VornNet {

class PublisherClient;

/** A topic of a publisher. */
struct PublisherTopic {
    template <typename... Arguments>
    explicit PublisherTopic(const VornString& sTopic, Arguments&&... arguments)
        : sName(sTopic), history(std::forward<Arguments>(arguments)...), nFirst(history.newest()) {}

    const VornString sName;
    History history;
    const std::uint64_t nFirst; ///< the newest event when the topic was opened

    // For the sending thread only.
    std::vector<PublisherClient*> subscribers;
    std::uint64_t servedEnd = 0; ///< the end of the history that the subscribers were last told of
};

/**
 * The topics of a publisher. They are found without a lock, since every publish() looks for one: whoever adds
 * a topic publishes a new list, and old lists stay for those who are looking through one.
 */
class PublisherTopics {
public:
    using List = std::vector<PublisherTopic*>;

    PublisherTopics() { publish(List()); }

    /** @return the topic of that name, or null. */
    PublisherTopic* find(const VornString& sTopic) const {
        for (PublisherTopic* topic : all()) {
            if (topic->sName == sTopic)
                return topic;
        }
        return nullptr;
    }

    const List& all() const { return *m_current.load(std::memory_order_acquire); }

    /** Lets nothing be added any more. @return all topics that there will be */
    const List& close() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isClosed = true;
        return all();
    }

    /** Adds what @p make makes unless there is a topic of that name. */
    template <typename Make>
    void add(const VornString& sTopic, Make&& make) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_isClosed || find(sTopic) != nullptr)
            return;
        // All that needs memory comes first: a topic is there, and can be found, or it is not.
        m_topics.reserve(m_topics.size() + 1);
        std::unique_ptr<PublisherTopic> spTopic = make();
        List list = all();
        list.push_back(spTopic.get());
        publish(std::move(list));
        m_topics.push_back(std::move(spTopic));
    }

private:
    void publish(List list) {
        m_lists.push_back(std::make_unique<List>(std::move(list)));
        m_current.store(m_lists.back().get(), std::memory_order_release);
    }

    std::mutex m_mutex; // held by whoever adds
    bool m_isClosed = false;
    std::vector<std::unique_ptr<PublisherTopic>> m_topics;
    std::vector<std::unique_ptr<const List>> m_lists;
    std::atomic<const List*> m_current{nullptr};
};

} // namespace VornNet

#endif
