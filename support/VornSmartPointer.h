// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSMARTPOINTER_H
#define VORNSMARTPOINTER_H

#include "VornObjectBase.h"

#include <cstddef>

namespace VornSupport {

/**
 * Intrusive pointer that owns a VornObjectBase together with its other smart pointers.
 *
 * It starts empty, or takes an object, which adds a reference. Copying it adds a reference; destroying or
 * reassigning it releases one. The last smart pointer destroys the object.
 *
 * Thread-safety: the count is atomic, the pointer is not: one smart pointer is used by one thread at a time.
 * Blocking: nothing blocks, but releasing may run the object's destructor.
 * Ownership: shared; a raw pointer that is assigned keeps no claim of its own.
 * Signals: none raised.
 * Errors: nothing throws; an empty pointer is not checked when it is dereferenced.
 *
 * @tparam T VornObjectBase or a class derived from it; it may be incomplete where the pointer is only
 * declared
 */
template <typename T>
class VornSmartPointer {
public:
    /** Creates an empty pointer. */
    VornSmartPointer() noexcept : m_pObject(nullptr) {}

    /** Takes @p pObject, which may be null, and adds a reference to it. */
    VornSmartPointer(T* pObject) noexcept : m_pObject(pObject) {
        if (m_pObject != nullptr)
            m_pObject->addRef();
    }

    /** Shares the object of @p source. */
    VornSmartPointer(const VornSmartPointer<T>& source) noexcept : m_pObject(source.m_pObject) {
        if (m_pObject != nullptr)
            m_pObject->addRef();
    }

    /**
     * Shares the object of @p source and releases the one held before; does nothing when it is the same.
     *
     * The old object is released before the new one gains its reference. Where the old object is what keeps
     * the new one alive (`p = p->next`), take a copy of the smart pointer first.
     */
    VornSmartPointer<T>& operator=(const VornSmartPointer<T>& source) noexcept {
        if (m_pObject == source.m_pObject)
            return *this;
        if (m_pObject != nullptr)
            m_pObject->release();
        m_pObject = source.m_pObject; // only now: the end of the old object may have changed it
        if (m_pObject != nullptr)
            m_pObject->addRef();
        return *this;
    }

    /** As the assignment of a smart pointer: adds a reference of its own to @p pObject, which may be null. */
    VornSmartPointer<T>& operator=(T* pObject) noexcept {
        if (m_pObject == pObject)
            return *this;
        // Kept in this order: a class that counts its own references may rely on release coming first.
        if (m_pObject != nullptr)
            m_pObject->release();
        m_pObject = pObject;
        if (m_pObject != nullptr)
            m_pObject->addRef();
        return *this;
    }

    /** Lets go of the object, if there is one. */
    ~VornSmartPointer() {
        if (m_pObject != nullptr)
            m_pObject->release();
    }

    /** @return the object; null when empty, which is not checked. */
    T* operator->() noexcept { return m_pObject; }

    /** @copydoc operator->() */
    T* operator->() const noexcept { return m_pObject; }

    /** @return the object; the pointer must not be empty, which is not checked. */
    T& operator*() noexcept { return *m_pObject; }

    /** @copydoc operator*() */
    T& operator*() const noexcept { return *m_pObject; }

    /** @return the object or null; the reference stays here. */
    operator T*() const noexcept { return m_pObject; }

    /** @return 1 when both hold the same object or both are empty, else 0. */
    int operator==(const VornSmartPointer<T>& object) const noexcept {
        return m_pObject == object.m_pObject ? 1 : 0;
    }

    /** @return 0 always: smart pointers have no order, so that no container gets keyed by addresses. */
    int operator<(const VornSmartPointer<T>& /*object*/) const noexcept { return 0; }

    /**
     * Empties this pointer without releasing the object.
     * @return the object with the reference that was held here; the caller hands it to another smart pointer
     *         and releases once, or releases it
     */
    T* getOwnership() noexcept {
        T* pObject = m_pObject;
        m_pObject = nullptr;
        return pObject;
    }

    // An equality that returns int is never rewritten into `!=` or turned round by C++20, so each of these is
    // spelled out: one set for every language standard.

    /** @return true when the two do not hold the same object. */
    friend bool operator!=(const VornSmartPointer<T>& a, const VornSmartPointer<T>& b) noexcept {
        return a.m_pObject != b.m_pObject;
    }

    /** @return true when the smart pointer holds the object that the raw pointer names. @{ */
    template <typename U>
    friend bool operator==(const VornSmartPointer<T>& a, U* b) noexcept {
        return a.m_pObject == b;
    }

    template <typename U>
    friend bool operator==(U* a, const VornSmartPointer<T>& b) noexcept {
        return a == b.m_pObject;
    }

    /** @} */

    /** @return true when the smart pointer does not hold the object that the raw pointer names. @{ */
    template <typename U>
    friend bool operator!=(const VornSmartPointer<T>& a, U* b) noexcept {
        return a.m_pObject != b;
    }

    template <typename U>
    friend bool operator!=(U* a, const VornSmartPointer<T>& b) noexcept {
        return a != b.m_pObject;
    }

    /** @} */

    /** @return true when the smart pointer is empty. @{ */
    friend bool operator==(const VornSmartPointer<T>& a, std::nullptr_t) noexcept {
        return a.m_pObject == nullptr;
    }

    friend bool operator==(std::nullptr_t, const VornSmartPointer<T>& b) noexcept {
        return b.m_pObject == nullptr;
    }

    /** @} */

    /** @return true when the smart pointer holds an object. @{ */
    friend bool operator!=(const VornSmartPointer<T>& a, std::nullptr_t) noexcept {
        return a.m_pObject != nullptr;
    }

    friend bool operator!=(std::nullptr_t, const VornSmartPointer<T>& b) noexcept {
        return b.m_pObject != nullptr;
    }

    /** @} */

private:
    T* m_pObject;
};

} // namespace VornSupport

#endif
