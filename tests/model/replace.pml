/*
 * Slots that change their memory, and a reader that is cut off while it lives.
 *
 * The publisher gives up slots, the service thread frees their memory, makes fresh memory under any empty number, tells
 * the readers and hands it over. A reader that pins too much is cut off: revoked, its locks counted, their slots
 * poisoned, off the list. It goes on looking at what it has locked. What must hold: a frame that is locked has its own
 * pixels, in the memory that its reader has mapped, also after the cut; no reader is told to exchange memory that it has
 * locked.
 *
 * Here pages stay mapped (lock.pml is about that), a reader holds one frame, and there are two numbers in use and one
 * that is empty at first.
 *
 * Mutants: REVOKE_RELEASE (`revoked` is a release store), COUNT_FIRST (locks are counted before it), NO_POISON,
 * POISON_LATE (poisoned after the reader left the list), POISON_LOOK_FIRST (the publisher looks at the poison before the
 * locks), NO_REVOKED_LOOK (the reader does not look whether it is revoked), NO_MEMORY_LOOK (nor whether it has the
 * slot's memory).
 * FREE_UNSEEN (memory is freed although a word names the slot) is no fault by itself: such a word is on its way back,
 * because gen[s] of a slot that was given up is 0. The look is there so that this need not be true.
 * NO_CUT and NO_SUPPLY leave out one half of what the service thread does.
 * Witnesses: SEE_CUT (a frame is looked at after the cut), SEE_FRESH (a frame in fresh memory under a used number is
 * locked), SEE_UNKNOWN (a frame in memory that has not been received yet is refused), SEE_POISONED (a slot is given up
 * for it).
 */
#ifndef READERS
#define READERS 2
#endif
#ifndef FRAMES
#define FRAMES 4
#endif
#ifndef LOCKS
#define LOCKS 2
#endif
#define SLOTS 3
#define MEMORIES 3      /* generations of a slot's memory; 0 is none */
#define TORN 255

#define EMPTY 0
#define READY 1
#define POOL 2
#define RETURNED 3

#define GEN(s) (s)
#define MEMORY(s) (SLOTS + (s))
#define POISONED(s) (2 * SLOTS + (s))
#define OWNER(s) (3 * SLOTS + (s))
#define PIXELS(s, m) (4 * SLOTS + (s) * MEMORIES + (m))
#define WORD(p) (4 * SLOTS + SLOTS * MEMORIES + (p))
#define REVOKED(p) (WORD(READERS) + (p))
#define LISTED(p) (REVOKED(READERS) + (p))
#define CELLS (LISTED(READERS))
#define THREADS (2 + READERS)
#define PUBLISHER 0
#define SERVICE 1
#define READER(p) (2 + (p))

#define pack(g, s) ((g) * SLOTS + (s) + 1)
#define slot_of(w) (((w) - 1) % SLOTS)

#include "memory.pml"

typedef Told { chan message = [4] of { byte, byte } };
Told told[READERS];

inline look_at_words(thread, s, found)
{
    i = 0;
    do
    :: i < READERS ->
        load(thread, LISTED(i), x);
        if
        :: x != 0 ->
            load(thread, WORD(i), x);
            if
            :: x != 0 && slot_of(x) == s -> found = true
            :: else
            fi
        :: else
        fi;
        i++
    :: else -> i = 0; x = 0; break
    od
}

proctype publisher()
{
    byte frame = 1, newest = SLOTS, s, tries, i, x, m;
    bool named;
#ifdef NO_SUPPLY
    bool given_up = true;
#else
    bool given_up;
#endif
    do
    :: frame <= FRAMES ->
        s = 0;
        do
        :: s < SLOTS ->
            load(PUBLISHER, OWNER(s), x);
            if
            :: x == READY -> store_relaxed(PUBLISHER, OWNER(s), POOL)
            :: else
            fi;
            s++
        :: else -> break
        od;
        tries = 0;
        do
        :: tries < SLOTS ->
            s = (frame + tries) % SLOTS;
            load(PUBLISHER, OWNER(s), x);
            if
            :: s != newest && x == POOL ->
                store_seq_cst(PUBLISHER, GEN(s), 0);
#ifdef POISON_LOOK_FIRST
                load(PUBLISHER, POISONED(s), m);
#endif
                named = false;
                look_at_words(PUBLISHER, s, named);
#ifndef POISON_LOOK_FIRST
                load(PUBLISHER, POISONED(s), m);
#endif
                if
                :: named
                :: !named && m != 0 ->
#ifdef SEE_POISONED
                    assert(false);
#endif
                    store_release(PUBLISHER, OWNER(s), RETURNED)
                :: !named && m == 0 && !given_up ->      /* more than are needed */
                    store_release(PUBLISHER, OWNER(s), RETURNED);
                    given_up = true
                :: !named && m == 0 -> break
                fi
            :: else
            fi;
            tries++
        :: else -> break
        od;
        if
        :: tries < SLOTS ->
            load(PUBLISHER, MEMORY(s), m);
            store_relaxed(PUBLISHER, PIXELS(s, m), TORN);
            store_relaxed(PUBLISHER, PIXELS(s, m), frame);
            store_release(PUBLISHER, GEN(s), frame);
            newest = s
        :: else
        fi;
        atomic { s = 0; tries = 0; x = 0; m = 0; named = false; frame++ }
    :: else -> break
    od
}

inline cut_off(p)
{
#ifdef COUNT_FIRST
    load(SERVICE, WORD(p), held);
#endif
#ifdef REVOKE_RELEASE
    store_release(SERVICE, REVOKED(p), 1);
#else
    store_seq_cst(SERVICE, REVOKED(p), 1);
#endif
#ifndef COUNT_FIRST
    load(SERVICE, WORD(p), held);
#endif
#ifdef POISON_LATE
    store_seq_cst(SERVICE, LISTED(p), 0);
#endif
#ifndef NO_POISON
    if
    :: held != 0 -> store_seq_cst(SERVICE, POISONED(slot_of(held)), 1)
    :: else
    fi;
#endif
    store_seq_cst(SERVICE, LISTED(p), 0);
    held = 0
}

proctype service()
{
    byte s, i, x, m, held;
    bool named, cut;
end:
    do
#ifndef NO_CUT
    :: !cut -> cut_off(0); cut = true
#endif
#ifndef NO_SUPPLY
    :: atomic {      /* frees what was given up */
        waiting[SERVICE] == 0;
        if
        :: memory[OWNER(0)] == RETURNED -> s = 0
        :: memory[OWNER(1)] == RETURNED -> s = 1
        :: memory[OWNER(2)] == RETURNED -> s = 2
        fi
       };
#ifndef FREE_UNSEEN
        look_at_words(SERVICE, s, named);
#endif
        if
        :: !named -> store_relaxed(SERVICE, OWNER(s), EMPTY)
        :: else
        fi;
        atomic { s = 0; named = false; x = 0 }
    :: atomic {      /* fresh memory */
        waiting[SERVICE] == 0;
        if
        :: memory[OWNER(0)] == EMPTY && memory[MEMORY(0)] < MEMORIES - 1 -> s = 0
        :: memory[OWNER(1)] == EMPTY && memory[MEMORY(1)] < MEMORIES - 1 -> s = 1
        :: memory[OWNER(2)] == EMPTY && memory[MEMORY(2)] < MEMORIES - 1 -> s = 2
        fi;
        m = memory[MEMORY(s)]
       };
        store_relaxed(SERVICE, POISONED(s), 0);
        store_release(SERVICE, MEMORY(s), m + 1);
        i = 0;
        do
        :: i < READERS ->
            load(SERVICE, LISTED(i), x);
            if
            :: x != 0 -> atomic { waiting[SERVICE] == 0; told[i].message!s, m + 1 }
            :: else
            fi;
            i++
        :: else -> break
        od;
        store_release(SERVICE, OWNER(s), READY);
        atomic { s = 0; m = 0; i = 0; x = 0 }
#endif
    od
}

proctype reader(byte p)
{
    byte known[SLOTS], generation, slot, attempts, s, g, x, m;
    known[0] = 1;
    known[1] = 1;
    do
    :: told[p].message?[s, m] ->
        load(READER(p), REVOKED(p), x);
        if
        :: x != 0 -> atomic { told[p].message?s, m }      /* it has gone: nothing is taken in any more */
        :: else ->
            atomic {
                told[p].message?s, m;
                assert(generation == 0 || slot != s);
                known[s] = m
            }
        fi;
        goto next
    :: generation == 0 && attempts < LOCKS -> goto lock
    :: generation != 0 -> goto hold
    :: generation == 0 && attempts == LOCKS -> break
lock:
        atomic {
            if
            :: s = 0
            :: s = 1
            :: s = 2
            fi;
            attempts++;
            load(READER(p), GEN(s), g)
        };
        if
        :: g == 0 -> goto next
        :: else
        fi;
        store_seq_cst(READER(p), WORD(p), pack(g, s));
        load(READER(p), GEN(s), x);
        if
        :: x != g -> goto refused
        :: else
        fi;
#ifndef NO_REVOKED_LOOK
        load(READER(p), REVOKED(p), x);
        if
        :: x != 0 -> goto refused
        :: else
        fi;
#endif
        load(READER(p), MEMORY(s), m);
#ifndef NO_MEMORY_LOOK
        if
        :: m != known[s] ->
#ifdef SEE_UNKNOWN
            assert(false);
#endif
            goto refused
        :: else
        fi;
#endif
#ifdef SEE_FRESH
        assert(m == 1);
#endif
        atomic { generation = g; slot = s };
        goto next;
refused:
        store_release(READER(p), WORD(p), 0);
        goto next;
hold:
        atomic {
            load(READER(p), PIXELS(slot, known[slot]), x);
            assert(x == generation);
#ifdef SEE_CUT
            assert(p != 0 || memory[LISTED(0)] == 1)
#endif
        };
        if
        :: true -> goto next
        :: true
        fi;
        atomic {
            load(READER(p), PIXELS(slot, known[slot]), x);
            assert(x == generation);
            store_release(READER(p), WORD(p), 0);
            generation = 0;
            slot = 0
        };
next:
        atomic { s = 0; g = 0; x = 0; m = 0 }
    od
}

init {
    atomic {
        memory[OWNER(0)] = POOL;
        memory[OWNER(1)] = POOL;
        memory[MEMORY(0)] = 1;
        memory[MEMORY(1)] = 1;
        memory[LISTED(0)] = 1;
#if READERS > 1
        memory[LISTED(1)] = 1;
#endif
        run publisher();
        run service();
        run reader(0);
#if READERS > 1
        run reader(1)
#endif
    }
}
