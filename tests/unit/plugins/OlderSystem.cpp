// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// Preloaded, it makes the system look like one without _dl_find_object(), which came with glibc 2.35.

#include <cstring>

#include <dlfcn.h>

extern "C" __attribute__((visibility("default"))) void* dlsym(void* handle, const char* name) noexcept {
    using LookUp = void* (*)(void*, const char*);
    static const auto real = reinterpret_cast<LookUp>(::dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.2.5"));
    return std::strcmp(name, "_dl_find_object") == 0 ? nullptr : real(handle, name);
}
