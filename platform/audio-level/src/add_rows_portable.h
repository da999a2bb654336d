/*
 * Adds groups of three rows, exactly, in plain C that compilers turn into whatever vectors the processor has.
 * Three squares of one lane fit 32 bits without a sign; their sums do not, so that the upper halves are
 * summed apart: see add_rows_x86.h.
 */
static inline int16_t larger(int16_t a, int16_t b)
{
    return a > b ? a : b;
}

static inline int16_t smaller(int16_t a, int16_t b)
{
    return a < b ? a : b;
}

static inline uint32_t square(int16_t a)
{
    return (uint32_t)((int32_t)a * a);
}

static inline __attribute__((always_inline)) void add_rows(const int16_t *data, size_t groups, int vectors,
                                                           sums_t *sums)
{
    enum { GROUPS_PER_FLUSH = 32768 };
    const size_t row = (size_t)vectors * LANES;
    int16_t high[VECTORS_MAX * LANES] = {0};
    int16_t low[VECTORS_MAX * LANES] = {0};
    while (groups > 0) {
        const size_t count = groups < GROUPS_PER_FLUSH ? groups : GROUPS_PER_FLUSH;
        uint32_t whole[VECTORS_MAX * LANES] = {0};
        uint32_t upper[VECTORS_MAX * LANES] = {0};
        for (size_t group = 0; group < count; ++group, data += ROWS_PER_GROUP * row) {
            /* Unrolled by GCC at -O3, nothing of it stays in registers, which takes five times as long. */
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC unroll 1
#endif
            for (size_t i = 0; i < row; ++i) {
                const int16_t a = data[i];
                const int16_t b = data[row + i];
                const int16_t c = data[2 * row + i];
                high[i] = larger(high[i], larger(a, larger(b, c)));
                low[i] = smaller(low[i], smaller(a, smaller(b, c)));
                const uint32_t squares = square(a) + square(b) + square(c);
                whole[i] += squares;
                upper[i] += squares >> 16;
            }
        }
        for (size_t i = 0; i < row; ++i) {
            const uint32_t lower = whole[i] - (upper[i] << 16);
            sums->squares[i] += (double)(((uint64_t)upper[i] << 16) + lower);
        }
        groups -= count;
    }
    memcpy(sums->high, high, row * sizeof *high);
    memcpy(sums->low, low, row * sizeof *low);
}
