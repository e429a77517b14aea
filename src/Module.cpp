// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornProxyDependentContainer.h"
#include "VornSSLSocketConnection.h"
#include "VornSocketConnection.h"

#include <LogRecord.h>
#include <ModuleData.h>

using VornSupport::logRecord;
using VornSupport::VornLogging;

/**
 * Starts the library when it is loaded and ends it when it is unloaded or the process exits. Its name is
 * plain and global, so it must stay hidden: a second library with a class of the same name would take over
 * its hooks.
 */
class Module : public VornSupport::ModuleData {
public:
    explicit Module(bool bAutoInit) : ModuleData(bAutoInit) {
        if (!m_bAutoInit)
            return;
        if (m_nAttachCount == 0)
            Module::attach();
        ++m_nAttachCount;
    }

    ~Module() override {
        if (m_bAutoInit && m_nAttachCount > 0 && --m_nAttachCount == 0)
            Module::detach();
    }

    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    void attach() override {
        VornNet::VNETInitWinsock();
        VornNet::VNETInitSSL();
    }

    void detach() override {
        logRecord(VornLogging::cDebug, "vnet::Module::detach: entering");
        VornNet::VornProxyDependentContainer::deleteInstance();
        VornNet::VNETFinitSSL();
        VornNet::VNETFinitWinsock();
        logRecord(VornLogging::cDebug, "vnet::Module::detach: exiting");
    }
};

namespace {

Module g_module(true);

} // namespace
