/*
 * Memory as several processors see it. Include it after THREADS, CELLS and the names of the cells.
 *
 * Every thread has a store buffer of two entries. A store waits in its thread's own buffer, where that thread alone
 * finds it, until the bus carries it to memory:
 *   - stores to one cell leave in their order;
 *   - a relaxed store may overtake any other that waits for another cell;
 *   - a release store leaves after all that were before it;
 *   - a sequentially consistent store is done when the buffer is empty and it is in memory; a sequentially consistent
 *     load is an ordinary one (the pairing that compilers use on x86-64, where a store is never overtaken).
 * This is stronger than what C++ permits in one respect: loads are done in their order and no load is overtaken by a
 * later store. A missing acquire is not found here.
 */
byte memory[CELLS];
byte waiting[THREADS];      /* entries in the buffer, oldest first */
byte cell_of[2 * THREADS];
byte value_of[2 * THREADS];
bool is_release[2 * THREADS];

inline load(thread, cell, result)
{
    d_step {
        if
        :: waiting[thread] == 2 && cell_of[2 * (thread) + 1] == (cell) -> result = value_of[2 * (thread) + 1]
        :: else ->
            if
            :: waiting[thread] >= 1 && cell_of[2 * (thread)] == (cell) -> result = value_of[2 * (thread)]
            :: else -> result = memory[cell]
            fi
        fi
    }
}

inline store(thread, cell, value, release)
{
    atomic {
        waiting[thread] < 2;
        cell_of[2 * (thread) + waiting[thread]] = (cell);
        value_of[2 * (thread) + waiting[thread]] = (value);
        is_release[2 * (thread) + waiting[thread]] = (release);
        waiting[thread] = waiting[thread] + 1
    }
}
#define store_relaxed(thread, cell, value) store(thread, cell, value, 0)
#define store_release(thread, cell, value) store(thread, cell, value, 1)

inline store_seq_cst(thread, cell, value)
{
    atomic {
        waiting[thread] == 0;
        memory[cell] = (value)
    }
}

inline forget_entry(place)
{
    cell_of[place] = 0;
    value_of[place] = 0;
    is_release[place] = 0
}

inline carry_older(thread)
{
    d_step {
        waiting[thread] > 0;
        memory[cell_of[2 * thread]] = value_of[2 * thread];
        cell_of[2 * thread] = cell_of[2 * thread + 1];
        value_of[2 * thread] = value_of[2 * thread + 1];
        is_release[2 * thread] = is_release[2 * thread + 1];
        forget_entry(2 * thread + 1);
        waiting[thread] = waiting[thread] - 1
    }
}

inline carry_younger(thread)
{
    d_step {
        waiting[thread] == 2 && !is_release[2 * thread + 1] && cell_of[2 * thread] != cell_of[2 * thread + 1];
        memory[cell_of[2 * thread + 1]] = value_of[2 * thread + 1];
        forget_entry(2 * thread + 1);
        waiting[thread] = 1
    }
}

/* A process that is killed takes nothing back: what it stored arrives. */
active proctype bus()
{
end:
    do
    :: carry_older(0)
    :: carry_younger(0)
#if THREADS > 1
    :: carry_older(1)
    :: carry_younger(1)
#endif
#if THREADS > 2
    :: carry_older(2)
    :: carry_younger(2)
#endif
#if THREADS > 3
    :: carry_older(3)
    :: carry_younger(3)
#endif
    od
}
