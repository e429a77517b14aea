// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_CONTROLPIPE_H
#define VORNRELAY_CONTROLPIPE_H

#include "AcceptingPipe.h"

#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include <sys/types.h>

namespace VornRelay {

/** What a program asks its host's relay. */
struct ControlRequest {
    std::string sVerb;              ///< lease, release, leases or status
    std::vector<std::string> texts; ///< of lease: name and address; of release: the name
    std::int32_t nHandle = 0;       ///< of lease
    pid_t process = 0;              ///< who asks; 0 when it cannot be seen from here
    uid_t user = 0;                 ///< whose process it is
};

/** Writes a text as connections do: its length as an int, then its bytes. */
void putText(std::string& sBytes, const std::string& sText);

/** Writes a long as connections do: four bytes with the value, four without. */
void putLong(std::string& sBytes, std::uint32_t nValue);

/**
 * The pipe `relay`: programs ask for leases here, and operators how the relay is.
 *
 * A request and its answer are values in the order of the manual. Who asks is what the kernel says.
 */
class ControlPipe {
public:
    /** @return the bytes of the answer. */
    using RequestHandler = std::function<std::string(const ControlRequest& request)>;

    ControlPipe(RelayLoop& loop, const std::string& sName, RequestHandler onRequest);
    ~ControlPipe();

    ControlPipe(const ControlPipe&) = delete;
    ControlPipe& operator=(const ControlPipe&) = delete;

    /** @throws std::system_error */
    void open() { m_pipe.open(); }

    void close() { m_pipe.close(); }

    /**
     * Reads a request.
     * @return how many bytes it has; nothing when there are not enough yet
     * @throws std::invalid_argument when it is none
     */
    static std::optional<std::size_t> parse(const std::string& sBytes, ControlRequest& request);

private:
    class Client;

    void add(VornNet::OwnedDescriptor&& connection);
    void end(const std::shared_ptr<Client>& spClient);

    RelayLoop& m_loop;
    const RequestHandler m_onRequest;
    AcceptingPipe m_pipe;
    std::unordered_set<std::shared_ptr<Client>> m_clients;
};

} // namespace VornRelay

#endif
