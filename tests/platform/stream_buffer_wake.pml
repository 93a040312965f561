/* Model of how readers of a stream buffer wait for the next frame and the writer wakes only when
 * somebody waits. Checked in every interleaving: nobody sleeps while there is a frame that he has
 * not seen; a reader that is killed anywhere costs one needless wake at the most.
 *
 * -DMARK_GOES_BACK, -DMARK_WITHOUT_LOOK, -DNO_MARK each leave out one step; the checker must then
 * find a reader that sleeps for ever.
 */
#define READERS 2
#define FRAMES 3

byte latest;          /* number of the newest frame, the word that is slept on */
byte mark;            /* readers_wait: the number that somebody waits beyond */
bool asleep[READERS];
byte deaths;

#define wakeAll() atomic { asleep[0] = false; asleep[1] = false }

active proctype Writer() {
  byte before;
  do
  :: latest == FRAMES -> break
  :: else ->
    before = latest;
    latest = before + 1;
    if
    :: mark == before -> wakeAll()
    :: else
    fi
  od
}

active [READERS] proctype Reader() {
  byte seen, number, was;
  byte me = _pid - 1;
  do
  :: seen == FRAMES -> break
  :: else ->
    number = latest;
    if
    :: number != seen -> seen = number
    :: else ->
#ifndef NO_MARK
look: was = mark;
      if
      :: was == number -> goto marked
      :: else
      fi;
#ifndef MARK_WITHOUT_LOOK
      if
      :: latest != number -> goto again
      :: else
      fi;
#endif
#ifdef MARK_GOES_BACK
      mark = number;
#else
      /* Compare and swap. */
      atomic {
        if
        :: mark == was -> mark = number
        :: else -> goto look
        fi
      }
#endif
marked:
#endif
      if
      :: atomic { deaths == 0 -> deaths = 1 }; goto done
      :: skip
      fi;
      /* The kernel compares and puts to sleep in one step. */
      atomic { if :: latest == number -> asleep[me] = true :: else fi };
      !asleep[me];
    fi;
again: skip
  od;
done: skip
}
