/*
 * Publish, lock and unlock; listing of readers; death of readers and of the writer.
 *
 * R1 to R4 and W1 to W4 are those of platform/shm/src/protocol.h. A frame's pixels are one cell that holds the frame's
 * generation, TORN while it is written. What must hold: a frame that is locked has its own pixels for as long as it is
 * locked, and the publisher looks at no page that is unmapped.
 *
 * Left out: the history (a reader takes any slot that shows a generation, which is more than the history lets it do),
 * time, and everything that replace.pml is about.
 *
 * Mutants, each a fault that must be found:
 *   W1_RELEASE   gen[s] = 0 is a release store          R1_RELEASE    the lock word is a release store
 *   W4_RELAXED   gen[s] = g' is a relaxed store         LOOK_FIRST    W2 comes before W1
 *   LOOK_REUSED  one look serves two slots              NO_R2         the reader does not look at gen[s] again
 *   LIST_LATE    listed after its page was sent         NO_GRACE      a page is unmapped as soon as it is not listed
 *   SCAN_RELEASE the scan announces itself by a release store
 * Witnesses, states that must be reachable, since a model in which nothing happens has no errors either:
 *   SEE_LOCKED   a frame is locked                      SEE_REFUSED   R2 finds the slot reused
 *   SEE_PASSED   the publisher passes over a locked slot
 *   SEE_SURVIVED a frame is looked at after its writer died
 *   SEE_UNMAPPED a page is unmapped while another reader has a lock
 */
#ifndef SLOTS
#define SLOTS 2
#endif
#ifndef WORDS
#define WORDS 1
#endif
#ifndef PAGES
#define PAGES 2     /* readers, one after the other and side by side */
#endif
#ifndef FRAMES
#define FRAMES 3
#endif
#ifndef LOCKS
#define LOCKS 2     /* attempts of a reader */
#endif
#define TORN 255

#define GEN(s) (s)
#define PIXELS(s) (SLOTS + (s))
#define WORD(p, k) (2 * SLOTS + (p) * WORDS + (k))
#define LISTED(p) (2 * SLOTS + PAGES * WORDS + (p))
#define SCANS (2 * SLOTS + PAGES * WORDS + PAGES)
#define CELLS (SCANS + 1)
#define THREADS (1 + PAGES)
#define PUBLISHER 0
#define READER(p) (1 + (p))

#define pack(g, s) ((g) * SLOTS + (s) + 1)
#define slot_of(w) (((w) - 1) % SLOTS)

#ifdef WRITER_DIES
#define BOUND_TO_WRITER provided (!writer_dead)
#else
#define BOUND_TO_WRITER
#endif

#include "memory.pml"

bool sent[PAGES];      /* the reader has its page */
bool mapped[PAGES];    /* in the writer */
bool dead[PAGES];      /* killed: none of its statements is done any more */
bool closed[PAGES];    /* left by itself */
bool writer_dead;
byte held[PAGES];      /* locks, for the witnesses */

#ifdef LOOK_REUSED
#define REUSE 1
#else
#define REUSE 0
#endif

/* Whether a listed reader's word names `s`; adds every slot that is named to `named`. W2. */
inline look(s)
{
    i = 0;
    do
    :: i < PAGES ->
        load(PUBLISHER, LISTED(i), x);
        if
        :: x != 0 ->
            k = 0;
            do
            :: k < WORDS ->
                atomic {
                    assert(mapped[i]);
                    load(PUBLISHER, WORD(i, k), x);
                    if
                    :: x != 0 -> named[slot_of(x)] = true
                    :: else
                    fi
                };
                k++
            :: else -> break
            od
        :: else
        fi;
        i++
    :: else -> break
    od
}

inline close_slot(s)
{
#ifdef W1_RELEASE
    store_release(PUBLISHER, GEN(s), 0)
#else
    store_seq_cst(PUBLISHER, GEN(s), 0)
#endif
}

inline count_scan()
{
    load(PUBLISHER, SCANS, x);
#ifdef SCAN_RELEASE
    store_release(PUBLISHER, SCANS, x + 1)
#else
    store_seq_cst(PUBLISHER, SCANS, x + 1)
#endif
}

proctype publisher() BOUND_TO_WRITER
{
    byte frame = 1, newest = SLOTS, s, tries, i, k, x;
    bool named[SLOTS], looked;
    do
    :: frame <= FRAMES ->
        count_scan();
        tries = 0;
        do
        :: tries < SLOTS ->
            s = (frame + tries) % SLOTS;
            if
            :: s != newest ->
#ifdef LOOK_FIRST
                look(s);
                close_slot(s);
#else
                close_slot(s);
                if
                :: REUSE && looked
                :: else -> look(s); looked = true
                fi;
#endif
                if
                :: !named[s] -> break
                :: else ->
#ifdef SEE_PASSED
                    assert(false);
#endif
                    skip
                fi
            :: else
            fi;
            tries++
        :: else -> break
        od;
        if
        :: tries < SLOTS ->
            store_relaxed(PUBLISHER, PIXELS(s), TORN);       /* W3 */
            store_relaxed(PUBLISHER, PIXELS(s), frame);
#ifdef W4_RELAXED
            store_relaxed(PUBLISHER, GEN(s), frame);
#else
            store_release(PUBLISHER, GEN(s), frame);
#endif
            newest = s
        :: else          /* no slot: the frame is dropped */
        fi;
        count_scan();
#ifdef WAKE
        /* Wakes who waits: another scan, without a store that waits for all before it. */
        count_scan();
        i = 0;
        do
        :: i < PAGES ->
            load(PUBLISHER, LISTED(i), x);
            if
            :: x != 0 -> assert(mapped[i])
            :: else
            fi;
            i++
        :: else -> break
        od;
        count_scan();
#endif
        atomic {
            i = 0;
            do
            :: i < SLOTS -> named[i] = false; i++
            :: else -> break
            od;
            i = 0; k = 0; s = 0; x = 0; tries = 0; looked = false;
            frame++
        }
    :: else -> break
    od
}

/* Everything a reader does is guarded by its being alive. */
proctype reader(byte p)
{
    byte generation[WORDS], slot[WORDS], attempts, k, s, g, x;
    sent[p];
    do
    :: attempts < LOCKS && generation[0] == 0 -> k = 0; goto lock
#if WORDS > 1
    :: attempts < LOCKS && generation[1] == 0 -> k = 1; goto lock
#endif
    :: generation[0] != 0 -> k = 0; goto hold
#if WORDS > 1
    :: generation[1] != 0 -> k = 1; goto hold
#endif
    :: attempts == LOCKS && generation[0] == 0 && generation[WORDS - 1] == 0 -> break

lock:
        atomic {
            !dead[p];
            if
            :: s = 0
            :: s = 1
#if SLOTS > 2
            :: s = 2
#endif
            fi;
            attempts++;
            load(READER(p), GEN(s), g)
        };
        if
        :: g == 0 -> goto next
        :: else
        fi;
        atomic {
            !dead[p];
#ifdef R1_RELEASE
            store_release(READER(p), WORD(p, k), pack(g, s))    /* R1 */
#else
            store_seq_cst(READER(p), WORD(p, k), pack(g, s))
#endif
        };
        atomic {
            !dead[p];
            load(READER(p), GEN(s), x)                          /* R2 */
        };
#ifdef NO_R2
        x = g;
#endif
        if
        :: x == g ->
            atomic { generation[k] = g; slot[k] = s; held[p]++ }
#ifdef SEE_LOCKED
            assert(false)
#endif
        :: else ->
#ifdef SEE_REFUSED
            assert(false);
#endif
            atomic { !dead[p]; store_release(READER(p), WORD(p, k), 0) }
        fi;
        goto next;

hold:
        atomic {
            !dead[p];
            load(READER(p), PIXELS(slot[k]), x);                /* R3 */
            assert(x == generation[k]);
#ifdef SEE_SURVIVED
            assert(!writer_dead)
#endif
        };
        if
        :: true -> goto next      /* keeps it */
        :: true
        fi;
        atomic {
            !dead[p];
            load(READER(p), PIXELS(slot[k]), x);
            assert(x == generation[k]);
            store_release(READER(p), WORD(p, k), 0);            /* R4 */
            generation[k] = 0; slot[k] = 0; held[p]--
        };
next:
        atomic { s = 0; g = 0; x = 0; k = 0 }
    od;
    closed[p] = true
}

/* The writer's service thread: lists, sends, notices the end, takes off the list, unmaps. */
proctype service(byte p) BOUND_TO_WRITER
{
    byte number, x;
    mapped[p] = true;
#ifdef LIST_LATE
    sent[p] = true;
    memory[LISTED(p)] = 1;
#else
    memory[LISTED(p)] = 1;       /* sequentially consistent, and this thread has nothing else under way */
    sent[p] = true;
#endif
    dead[p] || closed[p];
    memory[LISTED(p)] = 0;
    number = memory[SCANS];
#ifndef NO_GRACE
    number % 2 == 0 || memory[SCANS] != number;
#endif
    atomic {
        mapped[p] = false;
#ifdef SEE_UNMAPPED
        assert(held[PAGES - 1 - p] == 0)
#endif
    }
}

proctype killer()
{
    if
    :: dead[0] = true
    :: true
    fi
}

init {
    atomic {
        run publisher();
        run service(0);
        run reader(0);
#if PAGES > 1
        run service(1);
        run reader(1);
#endif
        run killer()
    }
}

/* The writer dies with all its threads, between any two of their statements. */
#ifdef WRITER_DIES
active proctype writer_killer()
{
    writer_dead = true
}
#endif
