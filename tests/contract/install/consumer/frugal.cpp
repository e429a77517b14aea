// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornSSLSocketConnection.h>

int main() {
    VornNet::VNETInitSSL();
    return 0;
}
