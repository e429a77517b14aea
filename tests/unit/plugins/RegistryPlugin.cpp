// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RegistryPlugin.h"

#include <VornException.h>
#include <VornNetExport.h>
#include <VornProxyDependent.h>
#include <VornProxyDependentContainer.h>
#include <VornUnableToResolveAddressException.h>
#include <VornUnableToResolveNameException.h>

namespace {

class TellTaleProxy : public VornNet::VornProxyDependent {
public:
    TellTaleProxy(const char* remoteName, long handle, void (*destroyed)())
        : VornProxyDependent(remoteName, handle), m_destroyed(destroyed) {}

    ~TellTaleProxy() override { m_destroyed(); }

private:
    void (*m_destroyed)();
};

} // namespace

VORNNET_API void registerProxy(const char* remoteName, long handle, void (*destroyed)()) {
    VornNet::VornProxyDependentContainer::getInstance().add(new TellTaleProxy(remoteName, handle, destroyed));
}

VORNNET_API int registrySize() {
    return VornNet::VornProxyDependentContainer::getInstance().size();
}

VORNNET_API void throwException(const char* text, int code) {
    throw VornSupport::VornException(text, code);
}

VORNNET_API void throwUnableToResolveName(const char* text) {
    throw VornNet::VornUnableToResolveNameException(text);
}

VORNNET_API void throwUnableToResolveAddress(const char* text) {
    throw VornNet::VornUnableToResolveAddressException(text);
}

VORNNET_API int codeThrownBy(void (*thrower)()) {
    try {
        thrower();
    } catch (const VornSupport::VornException& exception) {
        return exception.getCode();
    } catch (...) {
    }
    return -1;
}
