// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef MODULEDATA_H
#define MODULEDATA_H

#include "VornSupportExport.h"

namespace VornSupport {

/**
 * Base of a library's module object, which starts the library when it is loaded and ends it when it is
 * unloaded.
 *
 * A library derives from it, overrides attach() and detach(), and keeps one static instance. The derived
 * class calls the hooks itself, from its constructor and destructor: in those of this base class the
 * overrides are not there yet, or no longer.
 *
 * Thread-safety: constructed and destroyed by the loader, alone.
 * Blocking: none here.
 * Ownership: static.
 * Signals: none.
 * Errors: none.
 */
class VORNSUPT_API ModuleData {
public:
    /** Notes how the module is started. @param bAutoInit whether it attaches and detaches by itself */
    ModuleData(bool bAutoInit);
    virtual ~ModuleData();

    ModuleData(const ModuleData&) = delete;
    ModuleData& operator=(const ModuleData&) = delete;

    /** Starts the library; here it does nothing. */
    virtual void attach();

    /** Ends the library; here it does nothing. */
    virtual void detach();

protected:
    bool m_bAutoInit;   ///< the module attaches and detaches by itself
    int m_nAttachCount; ///< how often the module has been attached without having been detached
};

} // namespace VornSupport

#endif
