// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * A library like ours, of somebody else, whose module class has the same plain name and is not hidden.
 */

#include <cstdio>

#include <ModuleData.h>

class __attribute__((visibility("default"))) Module : public VornSupport::ModuleData {
public:
    explicit Module(bool bAutoInit);
    ~Module() override;
    void attach() override;
    void detach() override;
};

Module::Module(bool bAutoInit) : ModuleData(bAutoInit) {
    attach();
}

Module::~Module() {
    detach();
}

void Module::attach() {
    std::puts("neighbour attached");
}

void Module::detach() {
    std::puts("neighbour detached");
}

namespace {

Module g_module(true);

} // namespace
