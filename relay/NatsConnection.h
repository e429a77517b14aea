// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_NATSCONNECTION_H
#define VORNRELAY_NATSCONNECTION_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nats/nats.h>

namespace VornRelay {

/** Where the engine is, and who connects. */
struct EngineAccess {
    std::string sHost;                ///< this host's token, which names its inbox
    std::vector<std::string> servers; ///< such as "nats://a.example:4222"
    std::string sCa;          ///< file of the certificates that servers are verified with; empty: no TLS
    std::string sCertificate; ///< file of the own certificate, empty for none
    std::string sKey;         ///< file of its key
    std::string sLogin;       ///< user name, for engines without TLS
    std::string sPassword;    ///< and password
    std::chrono::milliseconds writeLimit{5000}; ///< after which a server that reads nothing is given up
    bool bFixedConsumer = false; ///< consumers are the administrator's, and this host only reads through them
};

/** @return what the client library says of a status, and of its last error on this thread. */
std::string textOf(natsStatus status);

/** Destroys what the client library has created. */
struct NatsDeleter {
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }

    void operator()(natsConnection* connection) const { natsConnection_Destroy(connection); }

    void operator()(natsSubscription* subscription) const { natsSubscription_Destroy(subscription); }

    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
};

template <typename Object>
using NatsPointer = std::unique_ptr<Object, NatsDeleter>;

/**
 * @return options that read the certificate files anew. The connection does not connect again by itself: the
 * client library would keep what is published meanwhile and let newer messages pass it.
 * @throws std::runtime_error
 */
NatsPointer<natsOptions> optionsFor(const EngineAccess& access, std::chrono::milliseconds connectLimit);

/** @return the subject under which this host's answers arrive; no other host may read them. */
std::string inboxOf(const EngineAccess& access);

} // namespace VornRelay

#endif
