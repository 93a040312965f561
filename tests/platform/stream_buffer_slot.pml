/* Model of one status slot: setters that share nothing but the control word, one tester, one reader
 * of the value, and deaths anywhere, a dead setter's lease going to its successor. Checked in every
 * interleaving: what is read was the slot's value at some moment of the call, and the tester gets
 * the value that it takes the mark from.
 *
 * -DONE_CELL (the setter's cells are not told apart), -DNO_COUNT (the control word does not tell one
 * write from the next) and -DNO_RECHECK each leave out one step; the checker must then find an error.
 */
#define SETTERS 2
#define SETS 2      /* of each setter */
#define VALUES 5    /* 0: the first one; then 1 and 2 of setter 0, 3 and 4 of setter 1 */

/* The control word: count, mark, cell, lease. */
#define word(count, mark, cell, lease) ((count) * 8 + (mark) * 4 + (cell) * 2 + (lease))
#define leaseOf(w) ((w) % 2)
#define cellOf(w) (((w) / 2) % 2)
#define markOf(w) (((w) / 4) % 2)
#ifdef NO_COUNT
#define nextCount(w) 0
#else
#define nextCount(w) ((w) / 8 + 1)
#endif
#ifdef ONE_CELL
#define ownCell(w, me) 0
#else
#define ownCell(w, me) (leaseOf(w) == me -> 1 - cellOf(w) : 0)
#endif

byte control;
byte cell[SETTERS * 2];
byte deaths;

/* For the checker: the value now, and those that a reader in the middle of its call may return. */
byte value;
bool allowed[VALUES];

proctype Setter(byte me) {
  byte was, next, done;
  do
  :: done == SETS -> break
  :: else ->
    done++;
    was = control;
again:
    atomic {
      next = word(nextCount(was), 1, ownCell(was, me), me);
      cell[me * 2 + cellOf(next)] = me * SETS + done
    };
    /* A death here: its successor has the same lease and goes on with its next value. */
    if
    :: atomic { deaths < 1 -> deaths++ }
    :: atomic { control == was -> control = next; value = me * SETS + done; allowed[value] = true }
    :: atomic { control != was -> was = control }; goto again
    fi
  od
}

/* Get: word, cell, word again. */
proctype Getter() {
  byte was, got, n;
  do
  :: n == 2 -> break
  :: else ->
    n++;
    d_step {
      allowed[0] = false; allowed[1] = false; allowed[2] = false;
      allowed[3] = false; allowed[4] = false;
      allowed[value] = true
    };
again:
    was = control;
    got = cell[leaseOf(was) * 2 + cellOf(was)];
#ifndef NO_RECHECK
    if
    :: control != was -> goto again
    :: else
    fi;
#endif
    assert(allowed[got])
  od
}

proctype Tester() {
  byte was, got, n;
  do
  :: n == 2 -> break
  :: else ->
    n++;
    was = control;
again:
    if
    :: markOf(was) ->
      got = cell[leaseOf(was) * 2 + cellOf(was)];
      if
      :: atomic { control == was -> assert(got == value); control = was - 4 }
      :: atomic { control != was -> was = control }; goto again
      fi
    :: else
    fi
  od
}

init { atomic { run Setter(0); run Setter(1); run Getter(); run Tester() } }
