// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Scenarios.h"

#include <VornException.h>

#include <algorithm>
#include <ostream>

namespace VornTest {

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << '"' << outcome.text << "\" code " << outcome.code;
}

Outcome outcomeOf(const std::function<std::string()>& action) {
    try {
        return {action(), 0};
    } catch (const VornSupport::VornException& e) {
        return {e.getText(), e.getCode()};
    }
}

Outcome twice(const Stage& stage, const std::function<std::string()>& action, const Outcome& undisturbed) {
    const Outcome outcome = stage(action);
    const Outcome again = outcomeOf(action);
    if (again == undisturbed)
        return outcome;
    return {"cannot be used again (" + again.text + ") after: " + outcome.text, again.code};
}

Rule fails(const std::string& text) {
    return [text](const CallFault& fault) { return Promise{{text, fault.error}}; };
}

Rule endsWith(const std::string& text, int code) {
    return [text, code](const CallFault&) { return Promise{{text, code}}; };
}

Rule isIgnored() {
    return endsWith("");
}

Rule isIgnoredAndLeaks() {
    return [](const CallFault&) { return Promise{{}, 1}; };
}

Rule isTriedAgain(const Rule& rule) {
    return [rule](const CallFault& fault) { return fault.isLasting ? rule(fault) : Promise{}; };
}

Rule ofFirstCall(const Rule& rule) {
    return [rule](const CallFault& fault) { return fault.nth == 1 ? rule(fault) : Promise{}; };
}

Rule endsWait(std::initializer_list<int> quiet) {
    return [errors = std::vector<int>(quiet)](const CallFault& fault) {
        if (std::find(errors.begin(), errors.end(), fault.error) != errors.end())
            return Promise{{"no client", 0}};
        return fault.isLasting ? Promise{{"no client", 0}, 0, true} : Promise{};
    };
}

std::vector<Scenario> allScenarios() {
    std::vector<Scenario> all;
    for (const auto& group : {clientScenarios(), serverScenarios(), closingScenarios()})
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

} // namespace VornTest
