// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNMETRICS_H
#define VORNMETRICS_H

#include "VornNotifyExport.h"

#include <VornNetExport.h>
#include <VornString.h>

#include <memory>
#include <utility>
#include <vector>

namespace VornNet {

class VornDispatcher;
class VornPublisher;
class VornSteadySink;
class VornSubscriber;

/**
 * Numbers as OpenMetrics text, for programs that watch services.
 *
 * A service makes one whenever it is asked for its numbers, and writes the text where it is wanted:
 *
 *     std::cout << VornMetrics().add("orders", dispatcher).add("builds", publisher).text();
 *
 * Each add() takes the statistics() of that moment. Their names begin with "vornnet_dispatcher_",
 * "vornnet_publisher_", "vornnet_steady_sink_" or "vornnet_subscriber_", and the label "name" tells several
 * objects of one class apart. Numbers of the program's own go into the same text.
 *
 * Thread-safety: one thread at a time.
 * Blocking: none.
 * Ownership: none; nothing that was added is looked at again.
 * Signals: none.
 * Errors: VornException from add(), see there; nothing has been added then.
 */
class VORNNOTIFY_API VornMetrics {
public:
    /** What a number is. */
    enum class Type {
        gauge,  ///< what is there now
        counter ///< a sum that only grows; the text gives its name the ending "_total"
    };

    /** Names and values that tell the numbers of one metric apart. */
    using Labels = std::vector<std::pair<VornString, VornString>>;

    /** Begins without numbers. */
    VornMetrics();

    ~VornMetrics();

    VornMetrics(const VornMetrics&) = delete;
    VornMetrics& operator=(const VornMetrics&) = delete;

    /** Adds what a dispatcher tells of itself. @param sName the value of the label "name" @return this */
    VornMetrics& add(const VornString& sName, const VornDispatcher& dispatcher);

    /** Adds what a publisher tells of itself. @copydetails add(const VornString&, const VornDispatcher&) */
    VornMetrics& add(const VornString& sName, const VornPublisher& publisher);

    /** Adds what a steady sink tells of itself. @copydetails add(const VornString&, const VornDispatcher&) */
    VornMetrics& add(const VornString& sName, const VornSteadySink& sink);

    /** Adds what a subscriber tells of itself. @copydetails add(const VornString&, const VornDispatcher&) */
    VornMetrics& add(const VornString& sName, const VornSubscriber& subscriber);

    /**
     * Adds one number. All of one metric stand together in the text, wherever they were added.
     * @param sMetric the metric's name: letters, digits, '_' and ':', no digit first
     * @param sHelp   a sentence about it; the first one given for a metric counts
     * @param labels  their names are of letters, digits and '_', no digit first; bytes of a value that are
     * not UTF-8 become question marks
     * @return this
     * @throws VornException 22 (EINVAL) "VornMetrics::add: invalid metric." for a name that is none, or a
     * metric that was added with another type
     */
    VornMetrics& add(const VornString& sMetric, Type type, const VornString& sHelp, const Labels& labels,
                     double dValue);

    /** @return all numbers, with "# EOF" at the end. */
    VornString text() const;

private:
    class VORNNOTIFY_LOCAL State;
    std::unique_ptr<State> m_spState;
};

} // namespace VornNet

#endif
