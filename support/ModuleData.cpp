// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ModuleData.h"

namespace VornSupport {

ModuleData::ModuleData(bool bAutoInit) : m_bAutoInit(bAutoInit), m_nAttachCount(0) {}

ModuleData::~ModuleData() = default;

void ModuleData::attach() {}

void ModuleData::detach() {}

} // namespace VornSupport
