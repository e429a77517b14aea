// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornBufferConnection.h>

#include <cstdio>

int main() {
    VornNet::VornBufferConnection connection;
    connection.transfer(7);
    connection.transfer("seven");
    const int number = connection.receiveInt();
    std::printf("%d %s\n", number, connection.receiveString().c_str());
}
