/* SPDX-License-Identifier: Apache-2.0
   The wake-up of src/platform/Rusk/Protocol.h: one writer thread, one reader, a connection that may be lost. W, E, L and
   R1 to R5 are the events of that page; the reader's steps are those of ReaderRuskSm.cpp. The queue is its count alone, since
   the queue has a model of its own.

   The claim: when nothing moves any more, the reader has taken in the last change, and it sleeps unless nobody
   could promise to wake it.

   -DN=n        changes that the writer makes
   -DCAP=n      messages that fit into the socket on the reader's side
   -DLOSE=n     times that the connection is lost, with or without what was sent on it
   -DFULL=n     times that a SLEEP doesn't fit
   -DPAUSE=n    times that a sweep or the client keeps the reader from walking
   -DNOLOOP=1   the writer never gets to its loop
   -DREFUSED=1  the reader never gets a connection
   -DBUG=n      a mistake, which must be found:
     1  E marks the sleeper without comparing
     2  SLEEP names the queue's present end instead of what was taken in
     3  a message that doesn't fit is left out, and the connection kept
     4  no polling while SLEEP isn't answered
     5  the mark is set after ARMED has gone out and the next change was made
     6  after the end of a connection the reader connects, but neither walks nor polls
     7  what happened in a pause is forgotten at its end
     8  a lost connection's SLEEP counts as still under way
   Run by model/run-wake. */
#ifndef N
#define N 4
#endif
#ifndef CAP
#define CAP 2
#endif
#ifndef LOSE
#define LOSE 0
#endif
#ifndef FULL
#define FULL 0
#endif
#ifndef PAUSE
#define PAUSE 0
#endif
#ifndef NOLOOP
#define NOLOOP 0
#endif
#ifndef REFUSED
#define REFUSED 0
#endif
#ifndef BUG
#define BUG 0
#endif

#define ARMED 1
#define WAKE 2

byte tail = 0;                   /* the queue's count, in shared memory */
chan toW = [1] of { byte };      /* SLEEP(sequence) */
chan toR = [CAP] of { byte };    /* ARMED, WAKE */
bool open = false;               /* the writer has its end of the connection */
bool marked = false;
byte losses = LOSE;
byte misfits = FULL;
byte pauses = PAUSE;

/* reader */
byte taken = 0;
bool connected = false;          /* the reader has its end */
bool outstanding = false, armed = false, polling = false, following = true;

inline empty_(channel) { do :: len(channel) > 0 -> channel?_ :: len(channel) == 0 -> break od }

/* What was sent before is still there for the reader, or lost with the connection. */
inline shut() {
   open = false; marked = false; empty_(toW);
   if :: true :: true -> empty_(toR) fi
}

inline answer(what) {
   atomic {
      if
      :: len(toR) < CAP -> toR!what
      :: len(toR) == CAP -> if :: BUG == 3 :: BUG != 3 -> shut() fi /* L */
      fi
   }
}

active proctype writer() {
   byte s; bool late;
   do
   :: tail < N ->
      tail++;                                             /* W: the count is stored; then the look at the mark */
      if :: marked -> marked = false; answer(WAKE) :: else fi
   :: !NOLOOP && !late && len(toW) > 0 ->
      toW?s;                                              /* E */
      if
      :: BUG != 1 && tail != s -> answer(WAKE)
      :: else ->
         if :: BUG == 5 -> late = true :: else -> marked = true fi;
         answer(ARMED)
      fi
   :: late && open -> late = false; marked = true
   :: late && !open -> late = false
   :: open && losses > 0 -> atomic { losses--; shut() }
   od
}

inline tell() {
   atomic {
      if
      :: len(toW) == 0 && open ->
         if :: BUG == 2 -> toW!tail :: else -> toW!taken fi;
         outstanding = true
      :: misfits > 0 -> misfits--
      :: !open -> skip                                    /* met as the end of the connection */
      fi
   }
}

/* walk() and settle(). Leaves the reader polling or asleep. */
inline walk() {
   polling = false;
   do
   :: following && taken != tail -> taken++
   :: following && taken == tail -> break                 /* R1 */
   :: !following -> break
   od;
   if
   :: following ->
      if :: connected && !outstanding -> tell() :: else fi; /* R2 */
      if :: !armed && BUG != 4 -> polling = true :: else fi
   :: else
   fi
}

active proctype reader() {
   byte what;
   walk();
   do
   :: toR?what ->
      if
      :: what == ARMED -> armed = true; polling = false    /* R3 */
      :: else -> outstanding = false; armed = false; walk() /* R4; nothing in a pause */
      fi
   :: connected && !open && len(toR) == 0 ->                 /* R5 */
      connected = false;
      if :: BUG == 8 :: BUG == 6 :: else -> outstanding = false; armed = false fi;
      if :: BUG == 6 -> polling = false :: else -> walk() fi
   :: !connected && !open && !REFUSED ->
      atomic { empty_(toR); open = true; connected = true };
      if :: BUG == 6 && outstanding :: else -> walk() fi
   :: polling && (taken != tail || (connected && open && !outstanding)) -> walk() /* the timer */
   :: following && pauses > 0 -> pauses--; following = false; polling = false
   :: !following -> following = true; if :: BUG == 7 :: else -> walk() fi
   od
}

active proctype monitor() {
   timeout -> assert(tail == N && taken == tail && (armed || NOLOOP || REFUSED))
}
