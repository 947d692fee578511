/* SPDX-License-Identifier: Apache-2.0
   The wake-up of src/platform/Rusk/Protocol.h: one writer thread, one reader, a socket that may be lost. Names are those
   of the code: W, E, L and R1 to R5 of Protocol.h stand at their places. The queue is its count: Tessel has a model of
   its own. The claim: whatever happens, when nothing moves any more the reader has taken in the last change.

   -DN=n          changes that the writer makes
   -DLOSE=n       times that the connection is lost (its other end closed, or unsent messages)
   -DNOLOOP=1     the writer never gets to its loop
   -DREFUSED=1    the reader never gets a connection
   -DPAUSE=n      times that a sweep, or the client, keeps the reader from walking
   -DBUG=n        a mistake that must be found:
      1  E marks the sleeper without comparing             2  SLEEP says what was taken in before the walk, and E
      3  a message that doesn't fit is dropped without the     doesn't compare
         connection                                        4  no polling while SLEEP isn't answered
      5  ARMED goes out before the mark is set             6  the end of a connection doesn't lead to a walk
      7  a walk that was due in a pause is forgotten       8  after a connect SLEEP is sent without a walk, no compare in
      9  WAKE is taken for the answer to a SLEEP sent later    the writer
   Run by model/run-wake. */
#ifndef N
#define N 4
#endif
#ifndef LOSE
#define LOSE 0
#endif
#ifndef NOLOOP
#define NOLOOP 0
#endif
#ifndef REFUSED
#define REFUSED 0
#endif
#ifndef PAUSE
#define PAUSE 0
#endif
#ifndef BUG
#define BUG 0
#endif
