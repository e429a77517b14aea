// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNOBJECTBASE_H
#define VORNOBJECTBASE_H

#include "VornString.h"
#include "VornSupportExport.h"

#include <typeinfo>

namespace VornSupport {

/**
 * Base of every shared object: one reference count and the object's class name.
 *
 * An object is created with `new` and count 0. The first VornSmartPointer that takes it raises the count to
 * 1. The release that brings the count back to 0 destroys the object, that is, when the last smart pointer
 * lets go. Only smart pointers call addRef() and release(). An object that is not created with `new` keeps
 * count 0 and must never be given to a smart pointer, which would delete it.
 *
 * Thread-safety: the count is atomic; smart pointers on several threads may share one object.
 * Blocking: nothing blocks, but release() runs the destructor of the derived class.
 * Ownership: the smart pointers own the object together.
 * Signals: none raised.
 * Errors: the count reports none; the class name needs memory (std::bad_alloc).
 */
class VORNSUPT_API VornObjectBase {
public:
    /** Creates an object to which no pointer refers yet (count 0). */
    VornObjectBase();

    /** Copies nothing: the copy is a new object with references of its own (count 0). */
    VornObjectBase(const VornObjectBase& source);

    /** Assigns nothing: references belong to the object, not to its value. */
    VornObjectBase& operator=(const VornObjectBase& source);

    virtual ~VornObjectBase();

    /** Raises the count by one. For VornSmartPointer only. */
    virtual void addRef();

    /** Lowers the count by one and deletes the object when it reaches 0. For VornSmartPointer only. */
    virtual void release();

    /** @return the current count; on a shared object it may be outdated at once. */
    virtual int refCount() const;

    /**
     * @return true exactly when getClassName() equals @p sClassName.
     * It names the most derived class only and does not look at its base classes.
     */
    virtual bool isA(const VornString& sClassName) const;

    /** @return the readable name of the object's own, most derived class ("VornNet::VornPipeServer"). */
    virtual VornString getClassName() const;

    /**
     * Turns the compiler's name of a type into a readable one.
     * @return the readable name, or @p sName itself when it is no name of a type
     */
    static VornString normalizeClassName(const VornString& sName);

    /** @return the readable name of the dynamic type of @p object, which need not be counted. */
    template <typename T>
    static VornString getClassName(const T& object) {
        // The C++ library has dropped the "*" that the names of local types begin with.
        return normalizeClassName(typeid(object).name());
    }

    /** @return true exactly when the dynamic type of @p object has the readable name @p sClassName. */
    template <typename T>
    static bool isA(const T& object, const VornString& sClassName) {
        return getClassName(object) == sClassName;
    }

private:
    int m_nRefCount; // only accessed atomically
};

} // namespace VornSupport

#endif
