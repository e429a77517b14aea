// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_FORWARDSUBJECT_H
#define VORNRELAY_FORWARDSUBJECT_H

#include <optional>
#include <sstream>
#include <string>

namespace VornRelay {

/**
 * Where a piece of a forwarded connection is told: from whom, to whom, for which service.
 *
 * The engine lets a host tell only what has its own name in it, so the receiver knows for sure who has told
 * it.
 */
struct ForwardSubject {
    bool bToService = true; ///< from a client to a service, and not the way back
    std::string sTo;
    std::string sFrom;
    std::string sService;
    std::string sConnection;

    /** @return the subject with these parts. A part may be a wildcard. */
    std::string text() const {
        return std::string(bToService ? "vorn.reach." : "vorn.offer.") + sTo + "." + sFrom + "." + sService +
               "." + sConnection;
    }

    /** @return that of the way back. */
    ForwardSubject back() const { return {!bToService, sFrom, sTo, sService, sConnection}; }

    /** @return nothing for any other subject. */
    static std::optional<ForwardSubject> of(const std::string& sText) {
        ForwardSubject subject;
        std::string sVorn;
        std::string sWay;
        std::istringstream parts(sText);
        for (std::string* pPart :
             {&sVorn, &sWay, &subject.sTo, &subject.sFrom, &subject.sService, &subject.sConnection})
            std::getline(parts, *pPart, '.');
        subject.bToService = sWay == "reach";
        return subject.sConnection.empty() || subject.text() != sText ? std::nullopt : std::optional(subject);
    }
};

} // namespace VornRelay

#endif
