// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_LEAKCHECKEDTEST_H
#define VORNTEST_LEAKCHECKEDTEST_H

#include <cstddef>
#include <map>
#include <string>

#include <gtest/gtest.h>

/**
 * @file
 * The fixture from which the tests' fixtures derive.
 */
namespace VornTest {

/**
 * Fails a test which leaves behind more or fewer open descriptors or threads than it has found.
 *
 * Every test starts with the sandbox's own /etc/hosts and /etc/group, see restoreSystemFiles().
 *
 * It looks before the members of a fixture are made and when they are gone, so they may own what they like.
 * Combine it with testing::WithParamInterface for tests with parameters.
 */
class LeakCheckedTest : public testing::Test {
protected:
    LeakCheckedTest();
    ~LeakCheckedTest() override;

    /** Says that the test leaves @p count descriptors open by contract; they are closed at its end. */
    void expectDescriptorLeak(int count);

private:
    using Descriptors = std::map<int, std::string>;

    bool isAsExpected() const;
    std::string differences() const;
    void closeExtraDescriptors() const;

    Descriptors m_descriptors;
    std::size_t m_threads = 0;
    std::size_t m_expectedLeak = 0;
};

} // namespace VornTest

#endif
