/* SPDX-FileCopyrightText: 2026 The vornnet authors
 * SPDX-License-Identifier: Apache-2.0
 *
 * The block of a history: one thread appends, one reads without the lock, and the process may be killed at any
 * moment. The block has room for two frames; a frame is written in two halves.
 *
 * Checked: the reader is given whole frames only, those of the numbers that it asks for; what a killed process
 * leaves are whole frames from the oldest place to the end; and whoever appends goes on.
 *
 * Broken variants, each of which the checker must catch:
 *   -DBROKEN_LOOK_FIRST     the reader looks for the oldest place and then pins its own
 *   -DBROKEN_NO_PIN         the reader does not pin
 *   -DBROKEN_NO_WAIT        who appends does not wait for the reader
 *   -DBROKEN_WRITE_FIRST    the frame is written before the oldest place moves on
 *   -DBROKEN_END_FIRST      the end moves on before the frame is written
 *   -DBROKEN_KEEPS_PIN      the reader does not unpin
 */

#define ROOM 2
#define FRAMES 5
#define NOTHING 99

byte first[ROOM], second[ROOM];  /* both halves of the frames, as the numbers of their events */
byte oldest = 1, end = 1;        /* numbers of the oldest frame and of the next */
byte pinned = NOTHING;
bool isKilled = false;

proctype Appender() {
    byte number = 1;
    do
    :: isKilled -> break
    :: number > FRAMES -> break
    :: else ->
#ifdef BROKEN_WRITE_FIRST
        first[number % ROOM] = number;
        second[number % ROOM] = number;
#endif
#ifdef BROKEN_END_FIRST
        end = number + 1;
#endif
        if                       /* step: History::makeRoom */
        :: number - oldest >= ROOM ->
            oldest++;
#ifndef BROKEN_NO_WAIT
            (pinned >= oldest || isKilled)
#endif
        :: else
        fi;
        if
        :: isKilled -> break
        :: else
        fi;
#ifndef BROKEN_WRITE_FIRST
        first[number % ROOM] = number;  /* step: History::append */
        if
        :: isKilled -> break
        :: else
        fi;
        second[number % ROOM] = number;
#endif
        if
        :: isKilled -> break
        :: else
        fi;
        end = number + 1;
        number++
    od
}

proctype Reader() {
    byte number = 1;
    byte seen = 0;
    do
    :: true -> break             /* its subscriber leaves */
    :: !isKilled && number < end ->
#ifdef BROKEN_LOOK_FIRST
        if
        :: oldest <= number -> seen = 1
        :: else -> seen = 0
        fi;
        pinned = number;
        if
        :: seen == 1 ->
#else
#ifndef BROKEN_NO_PIN
        pinned = number;         /* step: History::pin */
#endif
        if
        :: oldest <= number ->
#endif
            assert(isKilled || first[number % ROOM] == number); /* step: History::batchAt */
            assert(isKilled || second[number % ROOM] == number);
#ifndef BROKEN_KEEPS_PIN
            pinned = NOTHING;    /* step: History::unpin */
#endif
            number++
        :: else ->
            pinned = NOTHING;
            number = oldest      /* step: PublisherClient::fallOut */
        fi
    od
}

proctype Kill() {
    byte number;
    if
    :: true
    :: atomic { true ->          /* step: History::recover */
        isKilled = true;
        number = oldest;
        do
        :: number < end ->
            assert(first[number % ROOM] == number && second[number % ROOM] == number);
            number++
        :: else -> break
        od }
    fi
}

init {
    atomic { run Appender(); run Reader(); run Kill() }
}
