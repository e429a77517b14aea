// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "FaultyStage.h"

#include "Await.h"

#include <atomic>
#include <cerrno>
#include <functional>

#include <gtest/gtest.h>

namespace VornTest {

namespace {

bool isLookUp(const std::string& function) {
    return function.size() > 2 && function.compare(function.size() - 2, 2, "_r") == 0;
}

} // namespace

FaultyStage::FaultyStage(const Scenario& scenario, const CallFault& fault, const Promise& promise)
    : m_scenario(scenario), m_fault(fault), m_promise(promise) {}

Outcome FaultyStage::operator()(const std::function<std::string()>& action) {
    m_rule.emplace(m_fault.function, m_fault.error, m_fault.nth, m_fault.isLasting ? FaultRule::always : 1,
                   m_scenario.isOfAllThreads ? 0 : currentTid());
    if (isLookUp(m_fault.function))
        m_rule->returning(m_fault.error);
    const Outcome outcome = m_promise.isEndless ? runWithInterruption(action) : outcomeOf(action);
    lift();
    return outcome;
}

int FaultyStage::failures() {
    const std::lock_guard lock(m_lock);
    return m_rule ? m_rule->failures() : m_failures;
}

const Promise& FaultyStage::promise() {
    return m_promise;
}

void FaultyStage::lift() {
    const std::lock_guard lock(m_lock);
    if (m_rule)
        m_failures = m_rule->failures();
    m_rule.reset();
}

Outcome FaultyStage::runWithInterruption(const std::function<std::string()>& action) {
    std::atomic<bool> ended = false;
    WatchedThread interrupter([&] {
        while (!ended) {
            m_scenario.interrupt(*this);
            std::this_thread::yield();
        }
    });
    const Outcome outcome = outcomeOf(action);
    ended = true;
    interrupter.join();
    return outcome;
}

Provoked expectPromise(const Scenario& scenario, const FailingCall& call, const CallFault& fault) {
    // A look-up that lacks room is made again with more, but not forever.
    const bool isLackOfRoom = isLookUp(fault.function) && fault.error == ERANGE && !fault.isLasting;
    const Promise promise = isLackOfRoom ? Promise{scenario.undisturbed} : call.rule(fault);
    FaultyStage stage(scenario, fault, promise);
    const Outcome outcome = scenario.run(std::ref(stage));
    EXPECT_EQ(stage.failures() > 0 ? promise.outcome : scenario.undisturbed, outcome)
        << describe(scenario, fault);
    return {stage.failures(), stage.failures() * promise.leaked};
}

std::string describe(const Scenario& scenario, const CallFault& fault) {
    return scenario.name + ": " + fault.function + " number " + std::to_string(fault.nth) + " fails with " +
           std::to_string(fault.error) + (fault.isLasting ? " from then on" : " once");
}

std::string testNameOf(const Scenario& scenario) {
    std::string name = scenario.name;
    for (char& character : name)
        character = character == ' ' ? '_' : character;
    return name;
}

} // namespace VornTest
