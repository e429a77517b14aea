// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AllHeaders.h"

const void* addressInSecondUnit();

namespace {

// A function that a header defines is one function for the whole program.
const void* addressInFirstUnit() {
    return reinterpret_cast<const void*>(&VornSupport::VornLogging::getInstance);
}

} // namespace

int main() {
    return addressInFirstUnit() == addressInSecondUnit() ? 0 : 1;
}
