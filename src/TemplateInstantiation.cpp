// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "VornConnection.h"
#include "VornIPCServer.h"
#include "VornNotificationCallback.h"
#include "VornProxyDependent.h"
#include "VornServerSocket.h"
#include "VornSocketConnection.h"
#include "VornUDPServerSocket.h"

#include <VornSmartPointer.h>

namespace VornSupport {

template class VORNNET_API VornSmartPointer<VornNet::VornConnection>;
template class VORNNET_API VornSmartPointer<VornNet::VornIPCServer>;
template class VORNNET_API VornSmartPointer<VornNet::VornNotificationCallback>;
template class VORNNET_API VornSmartPointer<VornNet::VornProxyDependent>;
template class VORNNET_API VornSmartPointer<VornNet::VornServerSocket>;
template class VORNNET_API VornSmartPointer<VornNet::VornSocketConnection>;
template class VORNNET_API VornSmartPointer<VornNet::VornUDPServerSocket>;

} // namespace VornSupport
