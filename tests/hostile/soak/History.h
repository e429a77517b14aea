// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef SOAK_HISTORY_H
#define SOAK_HISTORY_H

#include <string>

namespace Soak {

/**
 * What this process has done and seen, one line each, appended to a file at once: the time, a word, and
 * fields of the form name=value. A process that is killed leaves at most its last line incomplete.
 */
class History {
public:
    static void open(const std::string& path);

    /** Writes one line. Before open() it does nothing. */
    static void write(const char* format, ...) __attribute__((format(printf, 1, 2)));
};

/** How many descriptors and threads this process has. */
struct Belongings {
    int descriptors = 0;
    int threads = 0;

    static Belongings count();

    /** Waits until nothing is under way any more, and writes down what is open then. */
    void recordIdle() const;
};

} // namespace Soak

#endif
