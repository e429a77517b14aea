/* SPDX-FileCopyrightText: 2026 The vornnet authors
 * SPDX-License-Identifier: Apache-2.0
 *
 * The closing of a TCP or UDP server against a waiting thread: src/ServerGate.cpp as VornServerSocket and
 * VornUDPServerSocket use it. One thread waits three times, two threads close, and a third closes until the waiting
 * thread has ended, as an owner does. Each block that the code runs under the gate's lock is one atomic step here.
 *
 * Checked: a descriptor is closed once and not used afterwards, a bind never finds the port still held, no wake-up
 * datagram is sent while a socket is bound that would take it for a client, and nobody stays blocked.
 *
 * Broken variants, each of which the checker must catch:
 *   -DBROKEN_NO_EVICTION   close() does not wait until the waiting thread has left
 *   -DBROKEN_NO_SHUTDOWN   close() does not shut the socket down
 *   -DBROKEN_EARLY_REOPEN  init() does not wait for a closing that is under way, and the pointer is cleared first
 *   -DBROKEN_TWO_CLOSINGS  two threads may close at once
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
    atomic { waiting = false; sentAway = wasClosed }
    if
    :: sentAway -> (!closing)
    :: else
    fi
}

proctype Waiter() {
    byte descriptor;
    bool sentAway;
    byte round;
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
            fi
        :: else
        fi;
        endWait()
    }
    waiterEnded = true
}

inline close() {
    if
    :: cell == 0 -> needed = false
    :: else ->
#ifdef BROKEN_TWO_CLOSINGS
        atomic { needed = (cell != 0); closing = needed }
#else
        atomic { !closing -> needed = (cell != 0); closing = needed } /* step: ServerGate::Closing::Closing */
#endif
    fi;
    if
    :: needed ->
        doomed = cell;     /* step: ServerGate::Closing::closeSocket */
#ifdef BROKEN_EARLY_REOPEN
        cell = 0;
#endif
        atomic {
            isWaitedOn = waiting;
            wasClosed = wasClosed || waiting;
#ifndef BROKEN_NO_SHUTDOWN
            isShutDown[doomed] = isShutDown[doomed] || waiting
#endif
        }
#ifndef BROKEN_NO_EVICTION
        if
        :: isWaitedOn -> (!waiting)
        :: else
        fi;
#endif
        atomic { assert(isOpen[doomed]); isOpen[doomed] = false; portHeld = false }
        assert(!portHeld); /* the wake-up datagram of a UDP server: nobody is bound to take it */
        atomic { cell = 0; closing = false } /* step: ServerGate::Closing::~Closing */
    :: else
    fi
}

proctype Closer() {
    bool needed;
    bool isWaitedOn;
    byte doomed;
    close()
}

proctype Owner() {
    bool needed;
    bool isWaitedOn;
    byte doomed;
    do
    :: waiterEnded -> break
    :: cell != 0 -> close()
    od;
    close();
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
