// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * The library's module class once more, on a base whose counter can be set and seen. The class is hidden and
 * has no header, so its source is included; what it calls is replaced by something that tells of the call.
 */

#include "ModuleInstances.h"

#include <ModuleData.h>
#include <VornNetExport.h>
#include <VornProxyDependentContainer.h>
#include <VornSSLSocketConnection.h>
#include <VornSocketConnection.h>

#include <string>

namespace {

// The plug-in's own static module has nobody to tell of its life.
void (*g_tell)(const char* event) = nullptr;
int g_start = 0;

void tell(const std::string& event) {
    if (g_tell != nullptr)
        g_tell(event.c_str());
}

} // namespace

namespace VornNet {

bool VNETInitWinsock() {
    tell("VNETInitWinsock");
    return true;
}

void VNETFinitWinsock() {
    tell("VNETFinitWinsock");
}

void VNETInitSSL() {
    tell("VNETInitSSL");
}

void VNETFinitSSL() {
    tell("VNETFinitSSL");
}

void VornProxyDependentContainer::deleteInstance() {
    tell("deleteInstance");
}

} // namespace VornNet

namespace VornSupport {

class CountedModuleData : public ModuleData {
public:
    explicit CountedModuleData(bool bAutoInit) : ModuleData(bAutoInit) { m_nAttachCount = g_start; }

    ~CountedModuleData() override { tellCount(); }

    void count(int more) {
        tellCount();
        m_nAttachCount += more;
    }

private:
    void tellCount() const { tell("count " + std::to_string(m_nAttachCount)); }
};

} // namespace VornSupport

#define ModuleData CountedModuleData
#include "../../../src/Module.cpp"
#undef ModuleData

VORNNET_API void liveAsModule(bool autoInit, int start, int more, void (*tellOf)(const char* event)) {
    g_start = start;
    g_tell = tellOf;
    {
        Module module(autoInit);
        module.count(more);
    }
    g_tell = nullptr;
}
