// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_METRICSSOCKET_H
#define VORNRELAY_METRICSSOCKET_H

#include "AcceptingSocket.h"

#include <functional>
#include <memory>
#include <string>
#include <unordered_set>

namespace VornRelay {

/**
 * A socket file at which every HTTP request is answered with the metrics; no port of the network is opened.
 */
class MetricsSocket {
public:
    /** Opens the file, which replaces one of a process that has ended. @throws std::system_error */
    MetricsSocket(RelayLoop& loop, std::string sPath, std::function<std::string()> text);
    ~MetricsSocket();

    MetricsSocket(const MetricsSocket&) = delete;
    MetricsSocket& operator=(const MetricsSocket&) = delete;

private:
    class Client;

    void add(VornNet::OwnedDescriptor&& connection);
    void end(const std::shared_ptr<Client>& spClient);

    RelayLoop& m_loop;
    const std::string m_sPath;
    const std::function<std::string()> m_text;
    VornNet::OwnedDescriptor m_socket;
    AcceptingSocket m_accepting; // after the socket that it uses
    std::unordered_set<std::shared_ptr<Client>> m_clients;
};

} // namespace VornRelay

#endif
