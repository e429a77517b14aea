// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornBufferConnection.h>
#include <VornDispatcher.h>

#include <cstdio>

int main() {
    VornNet::VornBufferConnection connection;
    connection.transfer(7);
    connection.transfer("seven");
    const int number = connection.receiveInt();
    VornNet::VornDispatcher dispatcher;
    std::printf("%d %s, %zu queued\n", number, connection.receiveString().c_str(),
                dispatcher.statistics().nQueued);
}
