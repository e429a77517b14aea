// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_SHAREDOBJECT_H
#define VORNTEST_SHAREDOBJECT_H

#include <stdexcept>
#include <string>

#include <dlfcn.h>

namespace VornTest {

/** A shared object which is loaded while this exists. */
class SharedObject {
public:
    explicit SharedObject(const std::string& path, int flags = RTLD_NOW | RTLD_LOCAL)
        : m_handle(::dlopen(path.c_str(), flags)) {
        if (m_handle == nullptr)
            throw std::runtime_error(::dlerror());
    }

    ~SharedObject() { ::dlclose(m_handle); }

    SharedObject(const SharedObject&) = delete;
    SharedObject& operator=(const SharedObject&) = delete;

    /** The function called @p name: `object.function<decltype(f)>("f")`. */
    template <typename Function>
    Function* function(const char* name) const {
        void* address = ::dlsym(m_handle, name);
        if (address == nullptr)
            throw std::runtime_error(::dlerror());
        return reinterpret_cast<Function*>(address);
    }

private:
    void* m_handle;
};

} // namespace VornTest

#endif
