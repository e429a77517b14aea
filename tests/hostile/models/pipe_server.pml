/* SPDX-FileCopyrightText: 2026 The vornnet authors
 * SPDX-License-Identifier: Apache-2.0
 *
 * The closing of a pipe server against a waiting thread: src/VornPipeServer.cpp. One thread waits twice, two threads
 * close, and an owner destroys the server once the waiting thread has been told to wait no more.
 *
 * Checked: a record is released once and not used afterwards, nothing of the server is touched after its end, a
 * signalled thread wakes up, and nobody stays blocked.
 *
 * Broken variants, each of which the checker must catch:
 *   -DBROKEN_NO_WAITING_LOCK  the waiting thread looks at the record and raises the flag in two steps
 *   -DBROKEN_NO_SECOND_LOOK   close() does not look again when it has written that it releases
 *   -DBROKEN_NO_SIGNAL        close() forgets to write to the wake-up pipe
 *   -DBROKEN_NO_RELEASING     a thread that shuts down does not tell that it is about to call close()
 *   -DBROKEN_NO_LAST_WAIT     the destructor does not wait for that thread at its end
 */

#define cRecords 4

bool isHeld[cRecords];      /* records by number; 0 is none */
bool flag[cRecords];        /* m_bClientWaiting */
bool signalled[cRecords];   /* something is in the wake-up pipe */
byte handle = 0;            /* m_pipeHandle */
byte next = 1;
bool serverLock = false;    /* m_lock */
bool releasing = false;     /* the waiting thread is about to release the record */
bool destroyed = false;
bool noMoreWaits = false;

inline touchServer() {
    assert(!destroyed)
}

inline lockServer() {
    touchServer();
    atomic { !serverLock -> serverLock = true }
}

inline unlockServer() {
    touchServer();
    serverLock = false
}

inline look(isWaiter) {     /* step: VornPipeServer::isReleasable */
    seen = handle;
    signal = (seen != 0 && flag[seen]);
    release = (seen != 0 && !flag[seen] && (isWaiter || !releasing)) /* step: VornPipeServer::Releasing::isLeftToAnother */
}

inline closeLocked(isWaiter) {
    atomic { look(isWaiter) }
    if
    :: release ->           /* step: announce; without the lock that makes the looks atomic */
        atomic {
#ifndef BROKEN_NO_SECOND_LOOK
            look(isWaiter);
#endif
            if
            :: release ->
                assert(isHeld[seen] && !flag[seen]);
                isHeld[seen] = false;
                handle = 0
            :: else
            fi
        }
    :: else
    fi;
    if
    :: signal ->            /* step: announce */
        atomic {
            assert(isHeld[seen]);
#ifndef BROKEN_NO_SIGNAL
            signalled[seen] = true /* step: signalWaiter */
#endif
        }
    :: else
    fi
}

inline close(isWaiter) {    /* step: VornPipeServer::close */
    lockServer();
    closeLocked(isWaiter);
    unlockServer()
}

inline raiseFlag() {        /* step: VornPipeServer::Waiting::Waiting */
#ifdef BROKEN_NO_WAITING_LOCK
    record = handle;
    if
    :: record != 0 -> assert(isHeld[record]); flag[record] = true
    :: else
    fi
#else
    atomic {
        record = handle;
        if
        :: record != 0 -> assert(isHeld[record]); flag[record] = true
        :: else
        fi
    }
#endif
}

inline lowerFlag() {        /* step: VornPipeServer::Waiting::end */
    atomic { assert(isHeld[record]); flag[record] = false }
}

byte closersDone = 0;
bool waiterDone = false;

proctype Waiter() {
    byte record;
    byte seen;
    bool signal;
    bool release;
    byte round;
    for (round : 1 .. 2) {
        if
        :: noMoreWaits -> break
        :: !noMoreWaits ->
            touchServer();
            if              /* step: VornPipeServer::init */
            :: handle == 0 && next < cRecords ->
                atomic { isHeld[next] = true; flag[next] = false; signalled[next] = false }
                atomic { handle = next; next++ }
            :: else
            fi;
            raiseFlag();
            if
            :: record == 0  /* the text "pipe not setup. " */
            :: record != 0 ->
                if          /* step: awaitReadiness; until a client comes or somebody closes */
                :: signalled[record] ->
                    assert(isHeld[record]);
#ifndef BROKEN_NO_RELEASING
                    releasing = true; /* step: VornPipeServer::shutDown */
#endif
                    lowerFlag();
                    close(true);
                    releasing = false
                :: !signalled[record] && round < 2 ->
                    assert(isHeld[record]);
                    lowerFlag() /* step: VornPipeServer::acceptClient */
                fi
            fi
        fi
    }
    waiterDone = true
}

proctype Closer() {
    byte seen;
    bool signal;
    bool release;
    close(false);
    closersDone++
}

/* An owner sees to it that nobody else calls the server any more, and that the waiting thread waits or has ended. */
proctype Owner() {
    byte seen;
    bool signal;
    bool release;
    (closersDone == 2);
    noMoreWaits = true;
    (waiterDone || (handle != 0 && flag[handle]));
    close(false);           /* step: VornPipeServer::~VornPipeServer */
    do
    :: handle == 0 -> break
    :: waiterDone && handle != 0 -> break /* abandoned after 10 seconds */
    od;
#ifndef BROKEN_NO_LAST_WAIT
    if
    :: handle == 0 -> (!releasing) /* step: VornPipeServer::Releasing::await */
    :: else
    fi;
#endif
    destroyed = true
}

init {
    atomic {
        run Waiter();
        run Closer();
        run Closer();
        run Owner()
    }
}
