/* SPDX-FileCopyrightText: 2026 The vornnet authors
 * SPDX-License-Identifier: Apache-2.0
 *
 * The closing of a TCP or UDP server against a waiting thread: src/ServerGate.cpp as VornServerSocket and
 * VornUDPServerSocket use it. One thread waits three times, two threads close, and a third closes until the waiting
 * thread has ended, as an owner does. The waiting thread may itself close, in a signal handler during its wait. Each
 * block that the code runs under the registry's lock is one atomic step here.
 *
 * Checked: a descriptor is closed once and not used afterwards, a bind never finds the port still held, no wake-up
 * datagram is sent while a socket is bound that would take it for a client, and nobody stays blocked.
 *
 * Broken variants, each of which the checker must catch:
 *   -DBROKEN_NO_EVICTION   close() does not wait until the waiting thread has left
 *   -DBROKEN_NO_SHUTDOWN   close() does not shut the socket down
 *   -DBROKEN_EARLY_REOPEN  init() does not wait for a closing that is under way, and the pointer is cleared first
 *   -DBROKEN_TWO_CLOSINGS  two threads may close at once
 *   -DBROKEN_SELF_BEHIND_OTHERS  a thread that closes in a signal handler waits for one that closes already
 *   -DBROKEN_SELF_WAIT     a thread that closes in a signal handler waits until it has left its own wait
 *   -DBROKEN_SELF_CLOSE    such a thread closes the descriptor while it still waits on it
 */

#define cSockets 4

bool isOpen[cSockets];     /* descriptors by number; 0 is none */
bool isShutDown[cSockets];
byte cell = 0;             /* m_pSocketImpl: the descriptor, 0 for null */
byte next = 1;
bool portHeld = false;

bool closing = false;      /* a Closing is in the list */
bool waiting = false;      /* a Wait is in the list */
bool wasClosed = false;    /* the waiting thread's mark */
byte left = 0;             /* a socket that is left to the waiting thread to close */
bool waiterEnded = false;

inline openServer() {      /* step: VornServerSocket::init */
#ifndef BROKEN_EARLY_REOPEN
    (!closing);            /* step: ServerGate::awaitClosing */
#endif
    if
    :: cell == 0 ->
        atomic {
            assert(!portHeld); /* bind() would report EADDRINUSE */
            portHeld = true;
            assert(next < cSockets);
            isOpen[next] = true;
            isShutDown[next] = false;
        }
        atomic { cell = next; next++ }
    :: else
    fi
}

inline beginWait() {      /* step: ServerGate::Wait::Wait */
    atomic { !closing -> descriptor = cell; wasClosed = false; waiting = true }
}

inline endWait() {      /* step: ServerGate::Wait::end */
    atomic {
        waiting = false;
        sentAway = wasClosed && left == 0;
        if
        :: left != 0 -> assert(isOpen[left]); isOpen[left] = false; left = 0; portHeld = false
        :: else
        fi
    }
    if
    :: sentAway -> (!closing)
    :: else
    fi
}

inline close(isOwn) {     /* isOwn: by the waiting thread, in a signal handler */
    if
    :: cell == 0 -> needed = false
    :: else ->
#ifdef BROKEN_TWO_CLOSINGS
        atomic { needed = (cell != 0); closing = needed }
#else
        atomic {           /* step: ServerGate::Closing::Closing */
#ifdef BROKEN_SELF_BEHIND_OTHERS
            !closing ->
#else
            !closing || isOwn -> /* whoever closes already waits for this thread */
#endif
            needed = (cell != 0 && !closing);
            closing = closing || needed
        }
#endif
    fi;
    if
    :: needed ->
        doomed = cell;     /* step: ServerGate::Closing::close */
#ifdef BROKEN_EARLY_REOPEN
        cell = 0;
#endif
        atomic {
#ifdef BROKEN_SELF_WAIT
            isWaitedOn = waiting;
#else
            isWaitedOn = waiting && !isOwn;
#endif
            wasClosed = wasClosed || waiting;
#ifndef BROKEN_NO_SHUTDOWN
            isShutDown[doomed] = true /* step: ServerGate::Closing::shutDown */
#endif
        }
#ifndef BROKEN_NO_EVICTION
        if
        :: isWaitedOn -> (!waiting)
        :: else
        fi;
#endif
        atomic {
            assert(isOpen[doomed]);
#ifndef BROKEN_SELF_CLOSE
            if
            :: isOwn -> left = doomed
            :: else -> isOpen[doomed] = false; portHeld = false
            fi
#else
            isOpen[doomed] = false;
            portHeld = false
#endif
        }
        assert(isOwn || !portHeld); /* the wake-up datagram of a UDP server: no new socket is bound to take it */
        atomic { cell = 0; closing = false } /* step: ServerGate::Closing::~Closing */
    :: else
    fi
}

proctype Waiter() {
    byte descriptor;
    bool sentAway;
    byte round;
    bool needed;
    bool isWaitedOn;
    byte doomed;
    bool hasHandled = false;
    for (round : 1 .. 3) {
        if
        :: cell == 0 && next == cSockets -> break /* the model has no further descriptor */
        :: else
        fi;
        openServer();
        beginWait();
        if
        :: descriptor != 0 ->
            assert(isOpen[descriptor]);
            if             /* accept() or recvfrom(): blocks until a client comes or the socket is shut down */
            :: isShutDown[descriptor] -> assert(isOpen[descriptor])
            :: round < 3 -> assert(isOpen[descriptor]) /* a client comes; the last wait gets none */
            :: !hasHandled ->
                hasHandled = true;
                close(true);
                assert(isOpen[descriptor]) /* accept() or recvfrom() is taken up again after the handler */
            fi
        :: else
        fi;
        endWait()
    }
    waiterEnded = true
}

proctype Closer() {
    bool needed;
    bool isWaitedOn;
    byte doomed;
    close(false)
}

proctype Owner() {
    bool needed;
    bool isWaitedOn;
    byte doomed;
    do
    :: waiterEnded -> break
    :: cell != 0 -> close(false)
    od;
    close(false);
    assert(cell == 0 && !portHeld)
}

init {
    atomic {
        run Waiter();
        run Closer();
        run Closer();
        run Owner()
    }
}
