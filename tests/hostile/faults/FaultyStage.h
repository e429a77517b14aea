// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_FAULTYSTAGE_H
#define VORNTEST_FAULTYSTAGE_H

#include "Interpose.h"
#include "Scenarios.h"

#include <mutex>
#include <optional>
#include <string>

namespace VornTest {

/** A stage on which a system call fails. */
class FaultyStage : public FaultControl {
public:
    FaultyStage(const Scenario& scenario, const CallFault& fault, const Promise& promise);

    Outcome operator()(const std::function<std::string()>& action);

    int failures() override;
    const Promise& promise() override;
    void lift() override;

private:
    Outcome runWithInterruption(const std::function<std::string()>& action);

    const Scenario& m_scenario;
    const CallFault& m_fault;
    const Promise& m_promise;
    std::mutex m_lock;
    std::optional<FaultRule> m_rule;
    int m_failures = 0;
};

/** What there was of a failure that was provoked. */
struct Provoked {
    /** How many calls have failed. */
    int failures = 0;
    /** How many descriptors stay open by contract. */
    int leaked = 0;
};

/** Runs a scenario with a failure and expects what the call's rule promises. */
Provoked expectPromise(const Scenario& scenario, const FailingCall& call, const CallFault& fault);

/** For messages. */
std::string describe(const Scenario& scenario, const CallFault& fault);

/** The name of a scenario as the name of a test. */
std::string testNameOf(const Scenario& scenario);

} // namespace VornTest

#endif
