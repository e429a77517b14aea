// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNNOTIFICATION_H
#define VORNNOTIFICATION_H

#include "VornSupportExport.h"

namespace VornSupport {

/**
 * An event for observers: an identifier, and in derived classes the content that belongs to it.
 *
 * Thread-safety: it is not changed after construction; many threads may read it.
 * Blocking: none.
 * Ownership: it belongs to the notifying code and is only lent to observers.
 * Signals: none.
 * Errors: none.
 */
class VORNSUPT_API VornNotification {
public:
    /** Says what happened. @param nId what happened; the meaning is agreed between subject and observers */
    explicit VornNotification(int nId);
    virtual ~VornNotification();

    /** @return the identifier given at construction. */
    int getId() const;

private:
    int m_nId;
};

} // namespace VornSupport

#endif
