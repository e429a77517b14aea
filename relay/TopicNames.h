// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_TOPICNAMES_H
#define VORNRELAY_TOPICNAMES_H

#include <string>

namespace VornRelay {

/** @return the stream that keeps all topics of a host. */
inline std::string streamOfTopics(const std::string& sHost) {
    return "VORN_TOPIC_" + sHost;
}

/** @return the subject under which a topic's events are stored. */
inline std::string subjectOfTopic(const std::string& sHost, const std::string& sTopic) {
    return "vorn.topic." + sHost + "." + sTopic;
}

/** @return the subject on which it is told that some have been stored. */
inline std::string subjectOfNews(const std::string& sHost, const std::string& sTopic) {
    return "vorn.news." + sHost + "." + sTopic;
}

} // namespace VornRelay

#endif
