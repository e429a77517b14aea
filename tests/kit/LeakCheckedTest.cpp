// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "LeakCheckedTest.h"

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"

#include <sstream>

#include <unistd.h>

namespace VornTest {

namespace {

std::map<int, std::string> difference(const std::map<int, std::string>& left,
                                      const std::map<int, std::string>& right) {
    std::map<int, std::string> result;
    for (const auto& [fd, target] : left) {
        const auto other = right.find(fd);
        if (other == right.end() || other->second != target)
            result[fd] = target;
    }
    return result;
}

void list(std::ostream& out, const char* title, const std::map<int, std::string>& descriptors) {
    for (const auto& [fd, target] : descriptors)
        out << "  " << title << " descriptor " << fd << " -> " << target << '\n';
}

} // namespace

LeakCheckedTest::LeakCheckedTest() {
    restoreSystemFiles();
    m_descriptors = descriptorTable();
    m_threads = threadIds().size();
}

LeakCheckedTest::~LeakCheckedTest() {
    // A joined thread may be listed for a moment after its join.
    if (!awaitCondition([this] { return isAsExpected(); }, std::chrono::seconds(5))) {
        ADD_FAILURE() << "the test leaves its process changed (" << m_expectedLeak
                      << " more descriptors expected):\n"
                      << differences();
    }
    closeExtraDescriptors();
}

void LeakCheckedTest::expectDescriptorLeak(int count) {
    m_expectedLeak = static_cast<std::size_t>(count);
}

bool LeakCheckedTest::isAsExpected() const {
    const Descriptors now = descriptorTable();
    return difference(now, m_descriptors).size() == m_expectedLeak &&
           difference(m_descriptors, now).empty() && threadIds().size() == m_threads;
}

std::string LeakCheckedTest::differences() const {
    const Descriptors now = descriptorTable();
    std::ostringstream out;
    list(out, "left open:", difference(now, m_descriptors));
    list(out, "lost:", difference(m_descriptors, now));
    out << "  threads before: " << m_threads << ", after: " << threadIds().size() << '\n'
        << describeThreads();
    return out.str();
}

void LeakCheckedTest::closeExtraDescriptors() const {
    // Unexpected ones go as well: one leak should not fail the tests which follow.
    for (const auto& [fd, target] : difference(descriptorTable(), m_descriptors))
        ::close(fd);
}

} // namespace VornTest
