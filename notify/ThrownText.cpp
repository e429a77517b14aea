// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "ThrownText.h"

#include <VornException.h>

#include <exception>
#include <new>
#include <string>

namespace VornNet {

VornString describeThrown() {
    try {
        try {
            throw;
        } catch (const VornException& e) {
            return e.getText() + " (code=" + std::to_string(e.getCode()) + ")";
        } catch (const std::exception& e) {
            return e.what();
        } catch (...) {
            return "exception of unknown type";
        }
    } catch (const std::bad_alloc&) {
        return {};
    }
}

} // namespace VornNet
