// SPDX-License-Identifier: Apache-2.0
// The change queue (src/platform/Tessel) as a model for spin: one writer, one follower, each shared store and each shared
// load a step of its own, in the order of TesselWriter.h and TesselReader.cpp. `model/run` builds and runs it.
//
// What is proved, for every interleaving of a bounded run: at rest the follower's copy is the table; outside of sweeps no
// removal is told of a row that is in the table; no position is ever out of range for a follower that is on time.
//
// Left out: relative sequences (they are absolute here), formatting, several followers, mappings. Changes of private
// words are folded into the step before them. Slots 0 to 3, a compaction cuts to 2. Two keys; `life` tells a key that came
// back from the one that was removed, `value` counts the writes of a life.
//
//   OPS    operations of the writer        SWEEP   1: the follower begins with a sweep, at any moment
//   START  changes taken in at the start   PRUNE   1: turns leave out what the follower has reported
//   BUG    a mistake, to be found:
//     1 a turn drops a compaction without a floor      8 no second look at the generation
//     2 a move's entries are current                   9 the floor is stored after the generation
//     3 a turn makes them current                     10 the count is stored before the entry
//     4 a sweep's start inside a compaction           13 a removal isn't validated
//     6 what was refused is stepped over              15 no tombstone for a moved row's old slot
//     7 placed behind the entry that was refused      17 validateNotif looks at the generation once
#ifndef BUG
#define BUG 0
#endif
#ifndef OPS
#define OPS 3
#endif
#ifndef SWEEP
#define SWEEP 0
#endif
#ifndef START
#define START 2
#endif
#ifndef PRUNE
#define PRUNE 0
#endif
#define SLOTS 4
#define CUT 2
#define ROOM 10
#define NONE 15
#define TOMBSTONE 14

typedef Row { byte key; byte life; byte value }
typedef Table { byte sequence[ROOM]; byte slot[ROOM]; byte count }

/* shared with the follower */
Row row[SLOTS];
byte capacity = SLOTS;
Table table[2];
byte generation = 0;
byte next = 1;
byte corralStart = 0;
byte corralEnd = 0;
byte floor = 0;
byte reported = 0;                    /* by the follower, over its socket */

/* the writer's own, and the truth */
byte position[SLOTS];                 /* tessel.slots */
byte place[2]; byte life[2]; byte value[2];
bool shrinking = false;
bool writerDone = false;
byte ops = 0;
byte wNew, wAt, wOld, wOther, wKey, wSlot, wFloor, wOlder, wSeq;
bool wDrop, wIn;

/* the follower's */
Row copy[SLOTS];
byte fGeneration, fPosition, last;
byte fSlot, fSequence, fCount, fStart, fEnd, fNew, fAt, fFloor, fNext, fLook;
Row fRow;
bool fTaken, queued, valid, sweeping;

/* ---- writer: TesselWriter::turn */
inline turn(drop) {
  d_step {
    wDrop = drop; wOld = generation % 2; wOther = 1 - wOld; wFloor = floor;
    if :: wDrop && BUG != 1 && corralEnd > wFloor -> wFloor = corralEnd :: else fi;
    if :: PRUNE && reported > wFloor -> wFloor = reported :: else fi;
    wAt = 0; wNew = 0
  }
  table[wOther].count = 0;
  do
  :: wAt < table[wOld].count ->
     d_step { wSlot = table[wOld].slot[wAt]; wSeq = table[wOld].sequence[wAt];
       wIn = (corralStart != 0 && wSeq >= corralStart && (corralEnd == 0 || wSeq <= corralEnd)) }
     if
     :: wSlot == TOMBSTONE -> skip
     :: wSlot != TOMBSTONE && (wSeq <= wFloor || (BUG == 1 && wDrop && wIn)) ->
        if :: position[wSlot] == wAt -> position[wSlot] = NONE :: else fi
     :: else ->
        table[wOther].sequence[wNew] = wSeq;
        table[wOther].slot[wNew] = wSlot;
        d_step {
          if
          :: wIn && !(BUG == 3 && corralEnd != 0) -> skip
          :: wIn && BUG == 3 && corralEnd != 0 && position[wSlot] != NONE -> table[wOther].slot[wNew] = TOMBSTONE
          :: else -> position[wSlot] = wNew
          fi;
          wNew++
        }
     fi;
     wAt++
  :: else -> break
  od;
  table[wOther].count = wNew;
  if :: BUG != 9 -> floor = wFloor :: else fi;
  generation++;
  if :: BUG == 9 -> floor = wFloor :: else fi;
  if
  :: corralEnd != 0 && (wFloor >= corralEnd || (BUG == 1 && wDrop) || BUG == 3) -> corralStart = 0; corralEnd = 0
  :: else
  fi;
  d_step { wAt = 0; wNew = 0; wOld = 0; wOther = 0; wFloor = 0; wIn = 0; wDrop = 0; wSeq = 0 }
}

/* TesselWriter::notify; the table of the model never fills up, turns come at any moment */
inline notify(changed) {
  d_step { wOther = generation % 2; wNew = table[wOther].count; wOlder = position[changed]; assert(wNew < ROOM) }
  if :: BUG == 10 -> table[wOther].count = wNew + 1 :: else fi;
  table[wOther].sequence[wNew] = next;
  table[wOther].slot[wNew] = changed;
  if :: wOlder != NONE -> table[wOther].slot[wOlder] = TOMBSTONE :: else fi;
  table[wOther].count = wNew + 1;
  d_step {
    next++;
    if :: shrinking && BUG != 2 -> position[changed] = NONE :: else -> position[changed] = wNew fi;
    wOther = 0; wNew = 0; wOlder = 0
  }
}

inline tombstone(taken) {
  if
  :: position[taken] != NONE && BUG != 15 ->
     table[generation % 2].slot[position[taken]] = TOMBSTONE;
     position[taken] = NONE
  :: else
  fi
}

inline takeFreeSlot() {
  d_step { wSlot = 0; do :: wSlot < SLOTS && row[wSlot].key != NONE -> wSlot++ :: else -> break od }
}

inline move(from) {
  wKey = row[from].key;
  takeFreeSlot();
  assert(wSlot < CUT);
  d_step { row[wSlot].key = wKey; row[wSlot].life = row[from].life; row[wSlot].value = row[from].value; place[wKey] = wSlot }
  wFloor = wSlot;
  notify(wFloor);
  tombstone(from);
  row[from].key = NONE;
  notify(from);
  wFloor = 0
}

inline compact() {
  corralEnd = 0; corralStart = next; shrinking = true;
  if :: row[2].key != NONE -> move(2) :: else fi;
  if :: row[3].key != NONE -> move(3) :: else fi;
  shrinking = false; corralEnd = next - 1;
  capacity = CUT
}

proctype Writer() {
  do
  :: ops < OPS -> ops++;
     if :: wKey = 0 :: wKey = 1 fi;
     if
     :: place[wKey] != NONE ->                                         /* overwrite */
        d_step { value[wKey]++; wSlot = place[wKey]; row[wSlot].value = value[wKey]; wFloor = wSlot }
        notify(wFloor); wFloor = 0
     :: place[wKey] != NONE ->                                         /* remove */
        d_step { wFloor = place[wKey]; row[wFloor].key = NONE; place[wKey] = NONE }
        notify(wFloor); wFloor = 0
     :: place[wKey] == NONE ->                                         /* insert */
        takeFreeSlot();
        if
        :: wSlot < capacity ->
           d_step { life[wKey]++; value[wKey] = 0; place[wKey] = wSlot; row[wSlot].key = wKey; row[wSlot].life = life[wKey];
             row[wSlot].value = 0; wFloor = wSlot }
           notify(wFloor); wFloor = 0
        :: else
        fi
     :: capacity == CUT -> capacity = SLOTS                            /* grow */
     :: turn(0)
     :: corralEnd != 0 -> turn(1)
     :: capacity == SLOTS && corralStart == 0 && (row[2].key != NONE || row[3].key != NONE) -> compact()
     fi;
     d_step { wKey = 0; wSlot = 0 }
  :: else -> break
  od;
  writerDone = true
}

/* ---- follower: TesselReader::validateNotif */
inline validateNotif() {
  valid = (generation == fGeneration);
  if
  :: valid ->
     fCount = table[fGeneration % 2].count;
     fLook = table[fGeneration % 2].slot[fPosition];
     if :: BUG == 17 -> skip :: else -> valid = (generation == fGeneration) fi;
     if :: valid -> assert(fPosition < fCount); valid = (fLook != TOMBSTONE) :: else fi
  :: else
  fi
}

inline tellRemoval(slot) {
  d_step {
    if :: !sweeping -> assert(!(place[copy[slot].key] != NONE && life[copy[slot].key] == copy[slot].life)) :: else fi;
    copy[slot].key = NONE; copy[slot].life = 0; copy[slot].value = 0
  }
}

/* what a shadow does with a slot: read it, compare, ask before it removes */
inline doSlot(slot) {
  d_step {
    fTaken = true; fRow.key = NONE; fRow.life = 0; fRow.value = 0;
    if :: slot < capacity -> fRow.key = row[slot].key; fRow.life = row[slot].life; fRow.value = row[slot].value :: else fi
  }
  if
  :: copy[slot].key != NONE && copy[slot].key != fRow.key ->
     if :: queued && BUG != 13 -> validateNotif(); fTaken = valid :: else fi;
     if :: fTaken -> tellRemoval(slot) :: else fi
  :: else
  fi;
  if
  :: fTaken && fRow.key != NONE ->
     d_step {
       fLook = 0;
       do
       :: fLook < SLOTS ->                                             /* the row has moved */
          if :: copy[fLook].key == fRow.key && fLook != slot -> copy[fLook].key = NONE; copy[fLook].life = 0; copy[fLook].value = 0
          :: else fi;
          fLook++
       :: else -> break
       od;
       copy[slot].key = fRow.key; copy[slot].life = fRow.life; copy[slot].value = fRow.value
     }
  :: else
  fi;
  d_step { fRow.key = 0; fRow.life = 0; fRow.value = 0; valid = 0; fLook = 0; fCount = 0 }
}

/* TesselReader::capture, every slot, TesselReader::sweptTo */
inline sweep() {
  do
  :: fStart = 0; fNew = next - 1;
     fStart = corralStart;
     fEnd = corralEnd;
     if :: corralStart == fStart -> break :: else fi
  od;
  skip;
  d_step {
    if :: fStart != 0 && fEnd == 0 && fStart <= fNew && BUG != 4 -> fNew = fStart - 1 :: else fi;
    sweeping = true; queued = false; fSlot = 0
  }
  do :: fSlot < SLOTS -> doSlot(fSlot); fSlot++ :: else -> break od;
  skip;
  d_step { sweeping = false; last = fNew; fNew = 0; fSlot = 0; fStart = 0; fEnd = 0; fGeneration = NONE; fPosition = 0 }
}

/* TesselReader::place; the first entry behind `last` is sought from the front */
inline findPlace() {
  fAt = generation;
  fFloor = floor;
  fNext = next;
  fCount = table[fAt % 2].count;
  fNew = 0;
  do
  :: fNew < fCount -> if :: table[fAt % 2].sequence[fNew] > last -> break :: else -> fNew++ fi
  :: else -> break
  od;
  if
  :: generation != fAt -> skip
  :: else ->
     if
     :: last < fFloor -> d_step { fNew = 0; fAt = 0; fFloor = 0; fNext = 0; fCount = 0 } sweep()
     :: else -> assert(last < fNext); d_step { fGeneration = fAt; fPosition = fNew }
     fi
  fi;
  d_step { fNew = 0; fAt = 0; fFloor = 0; fNext = 0; fCount = 0 }
}

proctype Follower() {
  d_step { fGeneration = 0; fPosition = START; last = START; reported = START }
  if :: SWEEP -> d_step { copy[0].key = NONE; copy[0].life = 0; copy[2].key = NONE; copy[2].life = 0; reported = 0 } sweep() :: else fi;
  do
  :: generation != fGeneration -> findPlace()
  :: generation == fGeneration ->                                      /* TesselReader::step */
     fCount = table[fGeneration % 2].count;
     if
     :: fPosition < fCount ->
        fSequence = table[fGeneration % 2].sequence[fPosition];
        fSlot = table[fGeneration % 2].slot[fPosition];
        fCount = 0;
        if
        :: BUG != 8 && generation != fGeneration -> skip
        :: else ->
           if
           :: fSlot == TOMBSTONE -> d_step { last = fSequence; fPosition++ }
           :: else ->
              queued = true;
              doSlot(fSlot);
              if
              :: fTaken -> d_step { last = fSequence; fPosition++ }
              :: !fTaken && BUG != 6 && generation != fGeneration -> if :: BUG == 7 -> last = fSequence :: else fi
              :: else -> d_step { last = fSequence; fPosition++ }
              fi
           fi
        fi;
        d_step { fSequence = 0; fSlot = 0; fTaken = 0 }
     :: else ->
        fCount = 0;
        if :: PRUNE -> reported = last :: else fi;
        if :: writerDone && generation == fGeneration && fPosition >= table[fGeneration % 2].count -> break :: else fi
     fi
  od;
  skip;
  d_step {                                                              /* at rest the copy is the table */
    fLook = 0;
    do
    :: fLook < SLOTS ->
       if
       :: copy[fLook].key != NONE ->
          assert(place[copy[fLook].key] != NONE && life[copy[fLook].key] == copy[fLook].life && value[copy[fLook].key] == copy[fLook].value)
       :: else
       fi;
       fLook++
    :: else -> break
    od;
    fLook = 0;
    do
    :: fLook < 2 ->
       if :: place[fLook] != NONE -> fCount = 0; do :: fCount < SLOTS && copy[fCount].key != fLook -> fCount++ :: else -> break od; assert(fCount < SLOTS)
       :: else fi;
       fLook++
    :: else -> break
    od
  }
}

init {
  d_step {
    row[0].key = 1; row[0].life = 1; row[1].key = NONE; row[2].key = 0; row[2].life = 1; row[3].key = NONE;
    life[0] = 1; life[1] = 1; place[0] = 2; place[1] = 0;
    copy[0].key = 1; copy[0].life = 1; copy[1].key = NONE; copy[2].key = 0; copy[2].life = 1; copy[3].key = NONE;
    table[0].sequence[0] = 1; table[0].slot[0] = 0; table[0].sequence[1] = 2; table[0].slot[1] = 2; table[0].count = 2;
    next = 3; position[0] = 0; position[1] = NONE; position[2] = 1; position[3] = NONE
  }
  atomic { run Writer(); run Follower() }
}
