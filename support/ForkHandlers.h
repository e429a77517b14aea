// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_FORKHANDLERS_H
#define VORNSUPPORT_FORKHANDLERS_H

#include "IntrusiveList.h"
#include "NeverDestroyed.h"
#include "VornSupportExport.h"

#include <mutex>

namespace VornSupport {

/**
 * What a part of the libraries does when the process forks, for as long as this object exists. Not installed.
 *
 * Only the thread that forks lives on in the child. So a fork waits until it has the locks of the libraries:
 * then what they guard is whole in the child, which lets go of the locks and forgets what belonged to the
 * other threads.
 *
 * A lock that belongs to one object is not taken: a callback may run under it for long, and may even wait for
 * the thread that forks. The child creates such a lock anew, see RenewedInChild.
 */
class ForkHandlers : public IntrusiveList<ForkHandlers>::Link {
public:
    using Handler = void (*)();

    /** The logger is first, and forever: under its lock a log handler may take any of the others. */
    enum Order { cFirst, cLater };

    /**
     * @param takeLocks    called before the fork
     * @param letLocksGo   called after it in the parent
     * @param startAfresh  called after it in the child: lets the locks go and puts the rest right
     */
    VORNSUPT_API ForkHandlers(Handler takeLocks, Handler letLocksGo, Handler startAfresh,
                              Order order = cLater);
    VORNSUPT_API ~ForkHandlers();

    ForkHandlers(const ForkHandlers&) = delete;
    ForkHandlers& operator=(const ForkHandlers&) = delete;

private:
    struct Enrolled;
    static Enrolled& enrolled();
    static void beforeFork();
    static void afterForkInParent();
    static void afterForkInChild();

    struct Handlers {
        Handler takeLocks;
        Handler letLocksGo;
        Handler startAfresh;
    };

    Handlers m_handlers;
};

/**
 * Base of what holds an object's own locks and conditions, of type @p State: in the child of a fork
 * State::startAfresh() is called for each. A thread of the parent may have held the lock or waited for the
 * condition, and will never let go or wake there.
 */
template <typename State>
class RenewedInChild : public IntrusiveList<State>::Link {
protected:
    RenewedInChild() {
        static_cast<void>(s_isEnrolled);
        const std::lock_guard lock(all().lock);
        all().states.add(static_cast<State&>(*this));
    }

    ~RenewedInChild() {
        const std::lock_guard lock(all().lock);
        all().states.remove(static_cast<State&>(*this));
    }

    RenewedInChild(const RenewedInChild&) = delete;
    RenewedInChild& operator=(const RenewedInChild&) = delete;

private:
    struct All {
        std::mutex lock;
        IntrusiveList<State> states;
        ForkHandlers handlers{[] { all().lock.lock(); }, [] { all().lock.unlock(); },
                              [] {
                                  all().lock.unlock();
                                  for (State& state : all().states)
                                      state.startAfresh();
                              }};
    };

    static All& all() {
        static NeverDestroyed<All> instance;
        return instance.object;
    }

    // At load: a fork that met the first use would leave it half created in the child.
    static inline const bool s_isEnrolled = (all(), true);
};

/** Creates a lock or a condition anew in the child of a fork, whatever state it is in. */
template <typename Primitive>
void makeAnew(Primitive& primitive) {
    new (&primitive) Primitive;
}

} // namespace VornSupport

#endif
