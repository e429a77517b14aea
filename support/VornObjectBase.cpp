// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornObjectBase.h"

#include "SharedField.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include <cxxabi.h>

namespace VornSupport {

VornObjectBase::VornObjectBase() : m_nRefCount(0) {}

VornObjectBase::VornObjectBase(const VornObjectBase& /*source*/) : m_nRefCount(0) {}

VornObjectBase& VornObjectBase::operator=(const VornObjectBase& /*source*/) {
    return *this;
}

VornObjectBase::~VornObjectBase() = default;

void VornObjectBase::addRef() {
    // A caller that adds a reference already holds one, so this need not order anything.
    std::atomic_ref(m_nRefCount).fetch_add(1, std::memory_order_relaxed);
}

void VornObjectBase::release() {
    // The destroying thread must see everything that the others did with the object before they let go.
    if (std::atomic_ref(m_nRefCount).fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete this;
}

int VornObjectBase::refCount() const {
    return readShared(m_nRefCount);
}

bool VornObjectBase::isA(const VornString& sClassName) const {
    return getClassName() == sClassName; // the virtual one: a class that names itself goes by that name
}

VornString VornObjectBase::getClassName() const {
    return getClassName(*this);
}

VornString VornObjectBase::normalizeClassName(const VornString& sName) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> readable(
        abi::__cxa_demangle(sName.c_str(), nullptr, nullptr, &status), &std::free);
    constexpr int cNoMemory = -1;
    if (status == cNoMemory)
        throw std::bad_alloc();
    if (readable == nullptr)
        return sName;
    return readable.get();
}

} // namespace VornSupport
