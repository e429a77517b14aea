// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Peers.h"

#include "Sandbox.h"

#include <system_error>
#include <utility>

#include <sys/socket.h>

namespace VornTest {

UniqueFd listenAtPipe() {
    return unixListen(pipePath("faults"), 20);
}

int freshPort() {
    static std::atomic<int> next = 10'000;
    return next++;
}

Service::Service(UniqueFd listener, std::function<void(int client)> serve)
    : m_listener(std::move(listener)), m_serve(std::move(serve)), m_thread([this] { run(); }) {}

Service::~Service() {
    m_ending = true;
    ::shutdown(m_listener.get(), SHUT_RDWR);
    m_thread.join();
}

void Service::run() {
    while (!m_ending) {
        try {
            const UniqueFd client = acceptClient(m_listener.get());
            m_serve(client.get());
        } catch (const std::system_error&) {
            // A client that fails early, or the end.
        }
    }
}

void echoInt(int client) {
    sendAll(client, receiveExactly(client, 4));
    receiveToEnd(client);
}

Repeated::Repeated(std::function<void()> work)
    : m_thread([this, work = std::move(work)] {
          while (!m_ending) {
              try {
                  work();
              } catch (const std::system_error&) {
                  std::this_thread::yield(); // the server is not there yet, or not any more
              }
          }
      }) {}

Repeated::~Repeated() {
    m_ending = true;
    m_thread.join();
}

void callServer(const UniqueFd& server) {
    sendAll(server.get(), bytes("00 00 00 07"));
    receiveToEnd(server.get());
}

} // namespace VornTest
