// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AcceptingPipe.h"

namespace VornRelay {

AcceptingPipe::~AcceptingPipe() {
    if (isOpen())
        m_listener->removeFile();
}

void AcceptingPipe::open() {
    if (isOpen())
        return;
    m_listener.emplace(VornNet::PipeListener::openNamed(m_sName.c_str(), std::nullopt));
    m_socket.begin(m_listener->descriptor());
}

void AcceptingPipe::close() {
    if (!isOpen())
        return;
    m_listener->removeFile();
    m_socket.acceptAll();
    m_socket.end();
    m_listener.reset();
}

} // namespace VornRelay
