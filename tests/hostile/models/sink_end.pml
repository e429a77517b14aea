/* SPDX-FileCopyrightText: 2026 The vornnet authors
 * SPDX-License-Identifier: Apache-2.0
 *
 * The end of a callback sink against its own loop: src/VornLibraryCallbackSink.cpp over a server whose close() only
 * reaches a thread that is in the wait, and which opens again with the next wait. A client that connects and says
 * nothing may come at any time.
 *
 * Checked: the destructor returns (under weak fairness), and nothing of the sink is touched after its end.
 *
 * Broken variants, each of which the checker must catch:
 *   -DBROKEN_ONE_CLOSE   the destructor closes the server once and then waits for the thread
 *   -DBROKEN_NO_STOP     the loop does not look whether it is to stop
 *   -DBROKEN_NO_CUT_OFF  a client that says nothing is not cut off
 *   -DBROKEN_NO_WAIT     the destructor does not wait for the thread
 */

bool stopRequested = false;
bool isListening = false;    /* the server has a socket */
bool isWaiting = false;      /* the thread is in the wait */
bool woken = false;
bool cutOff = false;
bool isReading = false;      /* the thread reads from a client */
bool threadEnded = false;
bool destroyed = false;

inline touchSink() {
    assert(!destroyed)
}

byte clients = 0;            /* connected and not yet accepted */

proctype Clients() {         /* up to two come, at any time, or none */
    if
    :: clients++
    :: skip
    fi;
    if
    :: clients++
    :: skip
    fi
}

proctype Thread() {          /* step: VornLibraryCallbackSink::run */
    bool silent;
again:
    do
#ifndef BROKEN_NO_STOP
    :: stopRequested -> break
    :: !stopRequested ->
#else
    :: true ->
#endif
        touchSink();         /* step: VornLibraryCallbackSink::serveOneClient */
        atomic { isListening = true; isWaiting = true; woken = false }
        if
        :: atomic { isWaiting = false; isListening = false }; goto again /* the wait fails; the loop goes on */
        :: woken -> atomic { isWaiting = false; isListening = false }; break
        :: clients > 0 -> atomic { clients--; isWaiting = false; isReading = true; cutOff = false }
        fi;
        touchSink();         /* step: VornLibraryCallbackSink::deliver */
        if
        :: silent = true
        :: silent = false
        fi;
        (!silent || cutOff);
        isReading = false;
        touchSink();
        isListening = false
    od;
    touchSink();
    threadEnded = true
}

inline closeServer() {
    atomic {
        if
        :: isWaiting -> woken = true
        :: else -> isListening = false
        fi
    }
}

proctype Destructor() {      /* step: VornLibraryCallbackSink::endThread */
    stopRequested = true;
#ifdef BROKEN_ONE_CLOSE
    closeServer();
    cutOff = true;
    (threadEnded);
#else
    do
    :: threadEnded -> break
    :: !threadEnded ->
        closeServer();
#ifndef BROKEN_NO_CUT_OFF
        atomic { if :: isReading -> cutOff = true :: else fi } /* step: ServedConnection::endRead */
#endif
#ifdef BROKEN_NO_WAIT
        break
#endif
    od;
#endif
    destroyed = true
}

init {
    atomic { run Clients(); run Thread(); run Destructor() }
}

ltl ends { <> destroyed }
