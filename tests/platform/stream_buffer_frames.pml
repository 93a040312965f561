/* Model of how the one writer and the readers of a stream buffer share frames, checked in every
 * interleaving: no pinned frame is written to, no number comes twice, no reader goes back, whoever
 * dies wherever. A store stays in its process's store buffer until that is drained, at any later
 * moment or at a fence, as on a weakly ordered processor.
 *
 * -DNO_WRITER_FENCE, -DNO_READER_FENCE, -DNO_SECOND_LOOK, -DREAP_THE_LIVING, -DNO_REPAIR each leave
 * out one step; the checker must then find an error, or else it would not see one at all.
 */
#define FRAMES 2
#ifndef READERS
#define READERS 1
#endif
#ifndef NUMBERS
#define NUMBERS 4     /* frames published */
#endif
#ifndef DEATHS
#define DEATHS 2      /* processes that die, wherever the checker likes */
#endif
#ifndef PINS
#define PINS 3        /* attempts of one reader process after the other */
#endif

byte seq[FRAMES];
bool bit_[FRAMES * READERS];     /* holders: one bit for each lease */
byte latest;

byte content[FRAMES];            /* the number that a frame's bytes belong to; 0: mixed */
bool writing[FRAMES];            /* for the checker alone */
bool dead[READERS];              /* the kernel has dropped the lease's lock */
byte deaths;

/* Store buffers of one entry: the writer's for seq, each reader's for its bits. */
bool wFull; byte wFrame; byte wValue;
bool rFull[READERS]; byte rFrame[READERS]; bool rValue[READERS];

#define drainWriter() seq[wFrame] = wValue; wFull = false; wFrame = 0; wValue = 0
#define drainReader(r) bit_[rFrame[r] * READERS + r] = rValue[r]; rFull[r] = false; \
                       rFrame[r] = 0; rValue[r] = false
#if READERS == 1
#define held(f) (bit_[f])
#else
#define held(f) (bit_[f * 2] || bit_[f * 2 + 1])
#endif
#define storeSeq(f, v) atomic { !wFull; wFrame = f; wValue = v; wFull = true }
#define storeBit(r, f, v) atomic { !rFull[r]; rFrame[r] = f; rValue[r] = v; rFull[r] = true }
/* What the reader itself sees of its bit's frame is not needed; what the writer sees of seq is. */
#define mySeq(f) (wFull && wFrame == f -> wValue : seq[f])
#define mayDie() atomic { if :: deaths < DEATHS -> deaths++; goto die :: skip fi }

/* Drains the buffers at any moment. */
active proctype Memory() {
  end: do
  :: atomic { wFull -> drainWriter() }
  :: atomic { rFull[0] -> drainReader(0) }
#if READERS == 2
  :: atomic { rFull[1] -> drainReader(1) }
#endif
  od
}

active proctype Writer() {
  byte f, old, number, r;
again:
  atomic { f = 0; old = 0; number = 0; r = 0 };
  do
  :: latest >= NUMBERS -> break
  :: else ->
    /* Reserve: any frame that nobody seems to hold; the true choice is one of these. */
    atomic {
      if
      :: !held(0) -> f = 0
      :: !held(1) -> f = 1
      :: held(0) && held(1) -> goto reap
      fi
    }
    old = mySeq(f);
    storeSeq(f, 0);
    mayDie();
#ifndef NO_WRITER_FENCE
    !wFull;
#endif
#ifndef NO_SECOND_LOOK
    if
    :: held(f) -> storeSeq(f, old); goto reap
    :: else
    fi;
#endif
    atomic { writing[f] = true; content[f] = 0 };
    mayDie();
    atomic {
      number = latest + 1;
      content[f] = number;
      writing[f] = false;
      assert(mySeq(0) != number && mySeq(1) != number)
    };
    storeSeq(f, number);
    /* `latest` follows in order. */
    !wFull;
    mayDie();
    latest = number;
    mayDie();
reap:
    /* The dead lose their bits while their lock is ours: nobody takes the lease meanwhile. */
    do
    :: atomic { r == READERS -> r = 0; f = 0; old = 0; number = 0 }; break
    :: else ->
      atomic {
#ifdef REAP_THE_LIVING
        if
        :: bit_[r] || bit_[READERS + r] -> bit_[r] = false; bit_[READERS + r] = false
        :: else
        fi;
#else
        if
        :: dead[r] -> bit_[r] = false; bit_[READERS + r] = false
        :: else
        fi;
#endif
        r++
      }
    od
  od;
  goto done;

  /* What a dead process has stored arrives; then another writer gets the lock and goes on. */
die:
  atomic {
    !wFull;
    writing[0] = false;
    writing[1] = false;
#ifndef NO_REPAIR
    if :: seq[0] == latest + 1 || seq[1] == latest + 1 -> latest = latest + 1 :: else fi;
#endif
    goto again
  };
done: skip
}

proctype Reader(byte me) {
  byte f, number, cursor, pins;
attach:
  /* The lock of the lease is ours; what a dead predecessor pinned is cleared. */
  dead[me] = false;
  bit_[me] = false;
  atomic { bit_[READERS + me] = false; cursor = 0 };
  do
  :: pins == PINS -> break
  :: else ->
    pins++;
    atomic {
      if
      :: seq[0] > cursor -> f = 0; number = seq[0]
      :: seq[1] > cursor -> f = 1; number = seq[1]
      :: else -> goto next
      fi
    }
    storeBit(me, f, true);
    mayDie();
#ifndef NO_READER_FENCE
    !rFull[me];
#endif
    if
    :: seq[f] == number ->
      assert(!writing[f] && content[f] == number);
      mayDie();
      assert(!writing[f] && content[f] == number);
      atomic { assert(number > cursor); cursor = number; number = 0 }
    :: else
    fi;
    storeBit(me, f, false);
    mayDie();
next: atomic { f = 0; number = 0 }
  od;
  goto done;
die:
  atomic { !rFull[me]; dead[me] = true; goto attach };
done: skip
}

init {
  atomic {
    run Reader(0);
#if READERS == 2
    run Reader(1)
#endif
  }
}
