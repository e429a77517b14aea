/* SPDX-FileCopyrightText: 2026 The vornnet authors
 * SPDX-License-Identifier: Apache-2.0
 *
 * A subscriber and its publisher: subscribing, going on after the last event, and gaps. The publisher keeps the
 * newest events only. It may be killed and come back with its history or with a new one, and the connection may
 * fail, at any moment; what was on the road is read or lost.
 *
 * Checked: of what the subscriber is told, no event is left out without a gap, and none comes twice; no gap is
 * told twice; and in the end it has come to the newest event.
 *
 * Broken variants, each of which the checker must catch:
 *   -DBROKEN_NUMBER_ONLY    a position is a number, and no history
 *   -DBROKEN_NO_GAP         who falls out of the history goes on with the oldest event, and nobody tells
 *   -DBROKEN_FORGETS_PLACE  who had no event yet asks anew as if for the first time
 *   -DBROKEN_FORGETS_GAP    a gap that was told is not gone on from
 *   -DBROKEN_FROM_EVENT     the publisher begins with the last event that the subscriber had, which does not look
 *   -DBROKEN_NOT_AGAIN      the subscriber does not come back
 */

#define KEPT 2   /* events that a history holds */
#define EVENTS 4 /* events that are published in all */
#define LOSSES 2

mtype = { event, gap };

byte history = 1, oldest = 1, newest = 0, published = 0, losses = 0;

bool isAsked = false, isLive = false; /* as the publisher sees the connection */
byte place = 0;                       /* the last event sent */
bool isOpen = false;                  /* as the subscriber sees it */
chan road = [2] of { mtype, byte, byte };

byte askedHistory, askedNumber;       /* 0: none, that is, the next event */
byte connection;                      /* history of this connection */
byte resumeHistory = 0, resumeNumber = 0;

byte toldHistory = 0, toldNumber = 0; /* what the program knows: everything up to here was called for or told */

inline lose() {
    isLive = false;
    isAsked = false
}

proctype Publisher() {
endless:
    do
    :: atomic { published < EVENTS ->                 /* step: History::append */
        published++;
        newest++;
        if
        :: newest - oldest + 1 > KEPT -> oldest++
        :: else
        fi }
    :: atomic { losses < LOSSES && published > 0 -> losses++; lose();
        if
        :: true                                       /* the connection fails, or the process is killed */
        :: true -> history++; oldest = 1; newest = 0  /* its history is lost */
        fi }
    :: atomic { isAsked ->                            /* step: PublisherClient::admit */
        isAsked = false;
        isLive = true;
        connection = history;
        if
        :: askedHistory == 0 -> place = newest
#ifdef BROKEN_NUMBER_ONLY
        :: askedHistory != 0 && askedNumber + 1 >= oldest -> place = askedNumber
        :: askedHistory != 0 && askedNumber + 1 < oldest ->
#else
        :: askedHistory == history && askedNumber + 1 >= oldest && askedNumber <= newest ->
            place = askedNumber;
#ifdef BROKEN_FROM_EVENT
            if
            :: place >= oldest -> place--
            :: else
            fi
#endif
        :: askedHistory != 0 && !(askedHistory == history && askedNumber + 1 >= oldest && askedNumber <= newest) ->
#endif
            place = oldest - 1;
#ifndef BROKEN_NO_GAP
            road!gap(history, oldest)                 /* step: PublisherClient::sayGap */
#endif
        fi;
        if
        :: resumeHistory == 0 -> resumeHistory = history; resumeNumber = place /* step: dealWithPlace */
#ifdef BROKEN_FORGETS_PLACE
        :: resumeHistory != 0 && toldHistory == 0 -> resumeHistory = history; resumeNumber = place
#endif
        :: else
        fi;
        if
        :: toldHistory == 0 -> toldHistory = history; toldNumber = place
        :: else
        fi }
    :: atomic { isLive && place < newest && place + 1 >= oldest && nfull(road) -> /* step: PublisherClient::sendEvents */
        place++;
        road!event(history, place) }
    :: atomic { isLive && place + 1 < oldest && nfull(road) ->  /* step: PublisherClient::fallOut */
        place = oldest - 1;
#ifndef BROKEN_NO_GAP
        road!gap(history, oldest)
#endif
        }
    od
}

inline tellGap(h, next) {                             /* step: SubscriberWork::tellGap */
    assert(h != toldHistory || next > toldNumber + 1);
    toldHistory = h;
    toldNumber = next - 1;
#ifndef BROKEN_FORGETS_GAP
    resumeHistory = h;
    resumeNumber = next - 1
#endif
}

proctype Subscriber() {
    byte h, n;
    bool wasOpen = false;
endless:
    do
#ifdef BROKEN_NOT_AGAIN
    :: atomic { !wasOpen && !isOpen && empty(road) ->
#else
    :: atomic { !isOpen && empty(road) ->             /* step: SubscriberWork::ask */
#endif
        wasOpen = true;
        isOpen = true;
        isAsked = true;
#ifdef BROKEN_FORGETS_PLACE
        askedHistory = (resumeNumber == 0 -> 0 : resumeHistory);
#else
        askedHistory = resumeHistory;
#endif
        askedNumber = resumeNumber }
    :: atomic { road?event(h, n) ->                   /* step: SubscriberWork::dealWithEvent */
        if
#ifndef BROKEN_FROM_EVENT
        :: h == resumeHistory && n <= resumeNumber    /* it is left out */
        :: else ->
#else
        :: true ->
#endif
#ifndef BROKEN_NO_GAP
            if
#ifdef BROKEN_NUMBER_ONLY
            :: n > resumeNumber + 1 ->
#else
            :: h != resumeHistory || n > resumeNumber + 1 ->
#endif
                tellGap(h, n)
            :: else
            fi;
#endif
            assert(h == toldHistory && n == toldNumber + 1); /* step: SubscriberWork::callForEvent */
            toldNumber = n;
            resumeHistory = h;
            resumeNumber = n
        fi }
    :: atomic { road?gap(h, n) ->                     /* step: SubscriberWork::dealWithGap */
        if
        :: h == resumeHistory && n - 1 <= resumeNumber && h == connection
        :: else -> tellGap(h, n)
        fi }
    :: atomic { isOpen && !isLive && !isAsked && empty(road) -> isOpen = false } /* step: SubscriberWork::lose */
    :: atomic { isOpen && !isLive && !isAsked && nempty(road) ->                 /* a reset takes the rest away */
        isOpen = false;
        do
        :: nempty(road) -> road?_, _, _
        :: empty(road) -> break
        od }
    od
}

proctype Quiet() {
    timeout ->
    assert(toldHistory == history && toldNumber == newest)
}

init {
    atomic { run Publisher(); run Subscriber(); run Quiet() }
}
