// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFY_SUBSCRIPTIONREQUEST_H
#define VORNNOTIFY_SUBSCRIPTIONREQUEST_H

#include "VornPosition.h"

#include <VornString.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace VornNet {

/** What a client asks a publisher for once its topic is known, put together from the bytes that have come. */
class SubscriptionRequest {
public:
    /** Where to begin, as it travels. */
    enum class Begin : std::uint32_t { next, last, oldest, after };

    /** Most bytes of a sound request, the line with the topic included. */
    static constexpr std::size_t cLongest = 5 * 1024;

    /**
     * Reads what has come so far, from its beginning; each time anew, for it is short.
     * @param mayCallBack whether the events may be asked for at a callback address
     * @return whether it is complete, which a request that is not sound is as soon as that shows
     */
    bool read(std::string_view bytes, bool mayCallBack);

    /** @return why a complete request is not sound; empty when it is. */
    const VornString& reason() const { return m_sReason; }

    const VornString& callback() const { return m_sCallback; }

    /** @return what is equal for callback addresses that lead to the same place. */
    const VornString& callbackKey() const { return m_sCallbackKey; }

    long handle() const { return m_hCallback; }

    Begin begin() const { return m_begin; }

    /** @return the last event that the client has seen; nowhere unless it begins after that. */
    VornPosition position() const;

    const VornString& words() const { return m_sWords; }

private:
    bool refuse(const char* reason);

    VornString m_sReason;
    VornString m_sCallback;
    VornString m_sCallbackKey;
    long m_hCallback = 0;
    Begin m_begin = Begin::next;
    VornPosition m_position;
    VornString m_sWords;
};

} // namespace VornNet

#endif
