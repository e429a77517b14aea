// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornBufferConnection.h>
#include <VornDispatcher.h>
#include <VornException.h>
#include <VornPipeServer.h>

#include <iostream>

namespace {

int failures = 0;

template <typename Type>
void expectEqual(const char* what, const Type& found, const Type& expected) {
    if (found != expected) {
        std::cerr << what << ": found " << found << ", expected " << expected << "\n";
        ++failures;
    }
}

void sendAndReceive() {
    VornNet::VornBufferConnection connection;
    connection.transfer(7);
    connection.transfer("a text");
    connection.transfer(70000L);
    expectEqual("bytes written", connection.size(), 4 + 4 + 6 + 8);
    expectEqual("int", connection.receiveInt(), 7);
    expectEqual("text", connection.receiveString(), VornNet::VornString("a text"));
    expectEqual("long", connection.receiveLong(), 70000L);
    try {
        connection.receiveShort();
        expectEqual("reading past the end", VornNet::VornString("nothing thrown"), VornNet::VornString());
    } catch (const VornSupport::VornException& exception) {
        // Caught by type, across the boundary of the shared library.
        expectEqual("exception", exception.getText(),
                    VornNet::VornString("VornConnection::get: failed read"));
    }
}

void dispatch() {
    VornNet::VornDispatcher dispatcher;
    VornNet::VornProxyDependent proxy("no address", 1);
    try {
        dispatcher.post(proxy, VornNet::VornNotification(1));
        expectEqual("an invalid address", VornNet::VornString("nothing thrown"), VornNet::VornString());
    } catch (const VornSupport::VornException& exception) {
        expectEqual("exception", exception.getText(),
                    VornNet::VornString("VornDispatcher::post: invalid callback address."));
    }
}

} // namespace

int main() {
    sendAndReceive();
    dispatch();
    expectEqual("path of a pipe", VornNet::VornPipeServer::getFullPipeName("consumer"),
                VornNet::VornString("/opt/vorn/hostmgr/var/lib/kestrel/rendez/consumer"));
    return failures == 0 ? 0 : 1;
}
