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
 *   -DBROKEN_NO_EVICTION   close() does not wait until the visitor has left
 *   -DBROKEN_NO_SHUTDOWN   close() does not shut the socket down
 *   -DBROKEN_EARLY_REOPEN  init() does not wait for a closing that is under way, and the pointer is cleared first
 *   -DBROKEN_TWO_CLOSURES  two threads may close at once
 */

#define cSockets 4

bool isOpen[cSockets];     /* descriptors by number; 0 is none */
bool isShutDown[cSockets];
byte cell = 0;             /* m_pSocketImpl: the descriptor, 0 for null */
byte next = 1;
bool portHeld = false;

bool closing = false;      /* a Closure is in the list */
bool visiting = false;     /* a Visit is in the list */
bool wasClosed = false;    /* the visitor's mark */
bool waiterEnded = false;

inline openServer() {      /* step: VornServerSocket::init */
#ifndef BROKEN_EARLY_REOPEN
    (!closing);            /* step: ServerGate::awaitClosure */
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

inline enterVisit() {      /* step: ServerGate::Visit::Visit */
    atomic { !closing -> descriptor = cell; wasClosed = false; visiting = true }
}

inline leaveVisit() {      /* step: ServerGate::Visit::leave */
    atomic { visiting = false; sentAway = wasClosed }
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
        enterVisit();
        if
        :: descriptor != 0 ->
            assert(isOpen[descriptor]);
            if             /* accept() or recvfrom(): blocks until a client comes or the socket is shut down */
            :: isShutDown[descriptor] -> assert(isOpen[descriptor])
            :: round < 3 -> assert(isOpen[descriptor]) /* a client comes; the last wait gets none */
            fi
        :: else
        fi;
        leaveVisit()
    }
    waiterEnded = true
}

inline close() {
    if
    :: cell == 0 -> needed = false
    :: else ->
#ifdef BROKEN_TWO_CLOSURES
        atomic { needed = (cell != 0); closing = needed }
#else
        atomic { !closing -> needed = (cell != 0); closing = needed } /* step: ServerGate::Closure::Closure */
#endif
    fi;
    if
    :: needed ->
        doomed = cell;     /* step: ServerGate::Closure::closeSocket */
#ifdef BROKEN_EARLY_REOPEN
        cell = 0;
#endif
        atomic {
            isVisited = visiting;
            wasClosed = wasClosed || visiting;
#ifndef BROKEN_NO_SHUTDOWN
            isShutDown[doomed] = isShutDown[doomed] || visiting
#endif
        }
#ifndef BROKEN_NO_EVICTION
        if
        :: isVisited -> (!visiting)
        :: else
        fi;
#endif
        atomic { assert(isOpen[doomed]); isOpen[doomed] = false; portHeld = false }
        assert(!portHeld); /* the wake-up datagram of a UDP server: nobody is bound to take it */
        atomic { cell = 0; closing = false } /* step: ServerGate::Closure::~Closure */
    :: else
    fi
}

proctype Closer() {
    bool needed;
    bool isVisited;
    byte doomed;
    close()
}

proctype Owner() {
    bool needed;
    bool isVisited;
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
