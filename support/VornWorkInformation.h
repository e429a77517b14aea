// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNWORKINFORMATION_H
#define VORNWORKINFORMATION_H

#include "VornObjectBase.h"
#include "VornSupportExport.h"

namespace VornSupport {

/**
 * The data on which a VornThread works; a program derives its own class from it.
 *
 * Thread-safety: decided by the derived class; the thread reads it while it runs.
 * Blocking: none.
 * Ownership: shared, see VornObjectBase.
 * Signals: none.
 * Errors: none.
 */
class VORNSUPT_API VornWorkInformation : public VornObjectBase {
public:
    VornWorkInformation();
    ~VornWorkInformation() override;
};

} // namespace VornSupport

#endif
