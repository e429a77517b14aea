// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef EXAMPLES_EVENTPRINTER_H
#define EXAMPLES_EVENTPRINTER_H

#include "FileEvent.h"

#include <VornNotificationCallback.h>

#include <atomic>
#include <cstdio>

namespace Example {

using VornNet::VornNotificationCallback;
using VornNet::VornSmartPointer;
using VornNet::VornString;

/** Prints each event. The sink has read all of it before it calls, and takes whatever is thrown. */
class EventPrinter : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

    int received() const { return m_nReceived; }

protected:
    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        const FileEvent event = FileEvent::read(*spConnection);
        ++m_nReceived;
        std::printf("event %d: %s '%s' (%ju bytes)\n", event.getId(), event.verb(),
                    printable(event.name()).c_str(), event.size());
    }

private:
    // A file name may contain any byte, including escape sequences for the terminal.
    static VornString printable(VornString sText) {
        for (char& character : sText) {
            if (static_cast<unsigned char>(character) < ' ' || character == '\x7f')
                character = '?';
        }
        return sText;
    }

    std::atomic<int> m_nReceived = 0; // counted on the sink's thread, read by main()
};

} // namespace Example

#endif
