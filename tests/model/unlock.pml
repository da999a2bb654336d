/*
 * A reader's own list of what it holds: one thread locks, the others give back, all beside each other.
 *
 * The list (HELD) mirrors the words of the control page (WORD). A lock fills the first free word and enters the list.
 * Giving back passes over the list once, takes any entry of that frame by a compare-exchange, clears the word in the
 * page, then the entry. What must hold:
 *   - at any time there are at least as many words of a frame in the page as locks that nobody gives back yet;
 *   - every lock that is given back finds an entry, and in the end all words are free.
 *
 * With DOUBLE the lock of the first frame is given back twice, at the same time: the second must find nothing, and
 * must not touch what others hold.
 *
 * Mutants: PLAIN_TAKE (a load and a store instead of the compare-exchange), HELD_FIRST (the entry is cleared before
 * the word).
 * Witnesses: SEE_LOST_RACE (another thread took the entry first), SEE_FULL (all words are in use).
 */
#ifndef WORDS
#define WORDS 2
#endif
#ifndef LOCKS
#define LOCKS 4
#endif
#define GOING 3   /* frames are 1 and 2 */

#define WORD(k) (k)
#define HELD(k) (WORDS + (k))
#define CELLS (2 * WORDS)
#ifndef UNLOCKERS
#define UNLOCKERS 2
#endif
#define THREADS (1 + UNLOCKERS)

#include "memory.pml"

#if UNLOCKERS > 2
#define nothing_waits (waiting[0] + waiting[1] + waiting[2] + waiting[3] == 0)
#else
#define nothing_waits (waiting[0] + waiting[1] + waiting[2] == 0)
#endif

byte due[3];          /* locks of a frame that nobody gives back yet */
chan handed = [LOCKS + 1] of { byte };
byte busy;            /* threads that are at work */
bool locked_all;

inline words_of(f, count)
{
    count = 0;
    m = 0;
    do
    :: m < WORDS ->
        if
        :: memory[WORD(m)] == f -> count++
        :: else
        fi;
        m++
    :: else -> m = 0; break
    od
}

inline take(thread, k, f)
{
#ifdef PLAIN_TAKE
    load(thread, HELD(k), x);
    taken = (x == f);
    if
    :: taken -> store_seq_cst(thread, HELD(k), GOING)
    :: else
    fi
#else
    atomic {
        waiting[thread] == 0;
        taken = (memory[HELD(k)] == f);
        if
        :: taken -> memory[HELD(k)] = GOING
        :: else
        fi
    }
#endif
}

inline give_back(thread, f)
{
    found = false;
    k = 0;
    do
    :: k < WORDS ->
        load(thread, HELD(k), x);
        if
        :: x == f ->
            take(thread, k, f);
            if
            :: taken ->
#ifdef HELD_FIRST
                store_release(thread, HELD(k), 0);
                store_release(thread, WORD(k), 0);
#else
                store_release(thread, WORD(k), 0);
                store_release(thread, HELD(k), 0);
#endif
                found = true;
                break
            :: else ->
#ifdef SEE_LOST_RACE
                assert(false);
#endif
                k++
            fi
        :: else -> k++
        fi
    :: else -> break
    od;
#ifndef DOUBLE
    assert(found);
#endif
    k = 0; x = 0; taken = false; found = false
}

proctype locker()
{
    byte n, f, k, x;
    bool taken, found;
    do
    :: n < LOCKS ->
        k = 0;
        do
        :: k < WORDS ->
            load(0, HELD(k), x);
            if
            :: x == 0 -> break
            :: else -> k++
            fi
        :: else -> break
        od;
        if
        :: k < WORDS ->
            if
#ifdef DOUBLE
            :: n == 0 -> f = 1      /* once only: a second lock of the same frame could not be told from the first */
            :: n != 0 -> f = 2
#else
            :: f = 1
            :: f = 2
#endif
            fi;
            store_seq_cst(0, WORD(k), f);
            store_release(0, HELD(k), f);
            atomic { k = 0; x = 0; due[f]++ };
            if
            :: atomic {
                waiting[0] == 0 ->      /* whoever gets the frame sees all that was stored before */
                handed!f;
#ifdef DOUBLE
                if
                :: f == 1 -> handed!f
                :: else
                fi
#endif
               }
#ifndef DOUBLE
            :: due[f]--; give_back(0, f)
#endif
            fi;
            f = 0;
            n++
        :: else ->
#ifdef SEE_FULL
            assert(false);
#endif
            skip
        fi
    :: else -> break
    od;
    locked_all = true
}

proctype unlocker(byte t)
{
    byte f, k, x;
    bool taken, found;
    do
    :: atomic {
        handed?f;
        busy++;
        if
        :: due[f] > 0 -> due[f]--
        :: else      /* the second time */
        fi
       };
        give_back(t, f);
        atomic { f = 0; busy-- }
    :: locked_all && empty(handed) -> break
    od
}

active proctype monitor()
{
    byte m, count;
end:
    do
    :: atomic { words_of(1, count); assert(count >= due[1]); words_of(2, count); assert(count >= due[2]); count = 0 }
    :: atomic {
        locked_all && empty(handed) && busy == 0 && nothing_waits ->
        m = 0;
        do
        :: m < WORDS -> assert(memory[WORD(m)] == 0 && memory[HELD(m)] == 0); m++
        :: else -> m = 0; break
        od
       }
    od
}

init {
    atomic {
        run locker();
        run unlocker(1);
        run unlocker(2);
#if UNLOCKERS > 2
        run unlocker(3)
#endif
    }
}
