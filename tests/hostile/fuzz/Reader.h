// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNFUZZ_READER_H
#define VORNFUZZ_READER_H

#include "Input.h"

#include <VornConnection.h>
#include <VornException.h>
#include <VornNotificationCallback.h>

/** The content of a sound notification. */
constexpr long soundContent = 4711;

/** The callback of a sink: after a number that says which, it does any sequence of typed reads. */
class Reader : public VornNet::VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

protected:
    void doCallback(VornNet::VornSmartPointer<VornNet::VornConnection>& spConnection) override {
        try {
            const long content = spConnection->receiveLong();
            for (long reads = content; content != soundContent && reads > 1; reads /= 4)
                readOne(*spConnection, reads % 4);
        } catch (const VornSupport::VornException& e) {
            require(e.getText() == "VornConnection::get: failed read", "nothing but a read fails");
            throw;
        }
    }

private:
    static void readOne(VornNet::VornConnection& connection, long type) {
        switch (type) {
        case 0:
            connection.receiveShort();
            break;
        case 1:
            connection.receiveInt();
            break;
        case 2:
            connection.receiveLong();
            break;
        default:
            connection.receiveString();
            break;
        }
    }
};

#endif
