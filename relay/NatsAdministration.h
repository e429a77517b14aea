// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_NATSADMINISTRATION_H
#define VORNRELAY_NATSADMINISTRATION_H

#include "Engine.h"
#include "NatsConnection.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace VornRelay {

/** The engine cannot be reached, or has refused. */
class AdministrationError : public std::runtime_error {
public:
    AdministrationError(const std::string& sText, int nCode) : std::runtime_error(sText), m_nCode(nCode) {}

    /** @return the engine's own error number, 0 when there was no answer. */
    int code() const { return m_nCode; }

private:
    int m_nCode;
};

/** A letter that could not be delivered, as it lies in the engine. */
struct DeadLetter {
    std::uint64_t nPosition = 0;
    std::string sHost; ///< that has written it
    std::string sTime;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string sContent;

    std::string header(const std::string& sName) const;
};

/**
 * What operators do with the engine: create streams, look at dead letters. It asks and waits for the answer.
 *
 * Everything throws AdministrationError.
 */
class NatsAdministration {
public:
    using Json = nlohmann::json;

    /**
     * Limits of a stream; 0 leaves one as it is, or as a new stream has it.
     *
     * That of messages is the one to reach first: nats-server 2.9 keeps it exactly, but where a new message
     * just fits into the bytes that are left, it deletes the oldest one, which it has confirmed.
     */
    struct Limits {
        std::int64_t nBytes = 0;     ///< new: 1 GiB
        std::int64_t nMessages = 0;  ///< new: 2^20
        std::int64_t nSeconds = 0;   ///< new: a week
        int nReplicas = 0;           ///< new: 1
        bool bFixedConsumer = false; ///< the consumers are created here, and not by the host
        std::int64_t nAckWait = 30;  ///< of such consumers, in seconds: until what was handed out comes again
        bool bTopics = false;        ///< it has topics that others may follow
    };

    explicit NatsAdministration(const EngineAccess& access);

    /** Creates the streams that a receiving host needs, as far as they are missing. What is told of one that
     * is there is changed. */
    void addHost(const std::string& sHost, const Limits& limits);

    void removeHost(const std::string& sHost);

    /** @return a line for each host with a stream. */
    Json hosts();

    std::vector<DeadLetter> deadLetters();
    DeadLetter deadLetter(std::uint64_t nPosition);
    void dropDeadLetter(std::uint64_t nPosition);
    void dropDeadLetters();

    /** Stores a message, unless one with its identity was stored just now. @return whether it is new */
    bool publish(const Engine::Message& message);

    /** @return the answer to a request. */
    Json request(const std::string& sSubject, const Json& content = Json());

    /** @return whether the engine lets this host listen to a subject. */
    bool mayListenTo(const std::string& sSubject);

    /** @return whether the engine lets this host publish to a subject; no stream keeps what is sent for that.
     */
    bool mayPublishTo(const std::string& sSubject);

private:
    Json ask(natsMsg* message);
    bool wasDenied(const std::string& sSubject);
    Json addStream(Json config, const Limits& limits);
    void addConsumer(const std::string& sHost, const std::string& sConsumer, const std::string& sKind,
                     const Limits& limits);

    NatsPointer<natsConnection> m_spConnection;
};

/** What a host needs permissions for besides notifications. */
struct HostRights {
    bool bTopics = false;            ///< topics of its services
    std::vector<std::string> follow; ///< topics of these hosts
    bool bOffer = false;             ///< its services are reached by other hosts
    std::vector<std::string> reach;  ///< services of other hosts, NAME@HOST
};

/**
 * @return the block of the engine's configuration that gives a host what its relay needs, and no more.
 * @param sHost its name, which is the DNS name in its certificate and may have dots
 * @param sendTo hosts that it may notify; "*" for all, and then it may also see which there are
 * @param bFixedConsumer it creates no consumers, and so names no subject for the engine to deliver to
 * @param rights names of hosts as above
 */
std::string permissionsOf(const std::string& sHost, const std::vector<std::string>& sendTo,
                          bool bFixedConsumer = false, const HostRights& rights = {});

} // namespace VornRelay

#endif
