// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"

#include <VornLogging.h>

/** A record that the level does not admit. The limit is the look at one variable that any such test needs. */
namespace Bench {

namespace {

using VornSupport::VornLogging;

constexpr int cRecords = 10'000;

} // namespace

void addLogging() {
    addFunction("logging", "limit", cRecords, [] {
        return [level = -1] {
            for (int i = 0; i < cRecords; ++i) {
                if (__atomic_load_n(&level, __ATOMIC_RELAXED) >= VornLogging::cTraceCoreLow)
                    VornLogging::getInstance() << i;
                benchmark::ClobberMemory();
            }
        };
    });
    addFunction("logging", "vornnet", cRecords, [] {
        return [] {
            for (int i = 0; i < cRecords; ++i) {
                if (VornLogging::isAdmitted(VornLogging::cTraceCoreLow))
                    VornLogging::getInstance() << VornSupport::setloglevel(VornLogging::cTraceCoreLow)
                                               << "Widget::open: " << i << VornSupport::endrecord;
                benchmark::ClobberMemory();
            }
        };
    });
}

} // namespace Bench
