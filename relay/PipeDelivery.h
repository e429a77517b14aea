// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNRELAY_PIPEDELIVERY_H
#define VORNRELAY_PIPEDELIVERY_H

#include "Delivery.h"

#include <PipeTry.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace VornRelay {

/**
 * Delivers one notification to a leased pipe of this host.
 *
 * A sink that takes it and does not read everything has a callback that is content with less, or has been
 * killed in the middle. In the latter case nobody listens a moment later, and the notification is tried
 * again.
 */
class PipeDelivery : public Delivery {
public:
    /** @param sAddress the sink's, a pipe @param sContent what follows the handle */
    PipeDelivery(RelayLoop& loop, const std::string& sAddress, int nHandle, std::string_view sContent,
                 DoneHandler onDone);
    ~PipeDelivery() override;

    void ready(std::uint32_t nEvents) override;
    void close() override;

    bool mayHaveArrived() const override { return m_bJudging || m_try.mayHaveArrived(); }

private:
    void attempt() override;
    void apply(const VornNet::DeliveryTry::Progress& progress);
    void judge();

    const VornNet::CallbackEndpoint m_endpoint;
    std::string m_sBytes;
    VornNet::PipeTry m_try;
    bool m_bJudging = false;
};

} // namespace VornRelay

#endif
