/*
 * Adds pairs of rows, exactly; included once for every vector width, with these defined:
 *
 *     ADD_ROWS ADD_ALL_ROWS  names of the functions        TARGET  of their code
 *     VECTOR LANES_X86       type, samples in one          OP(x)   intrinsic of that width
 *     LOAD(p)                unaligned load                LANE(i) sample of which squares i are
 *
 * Two rows are interleaved, so that multiplying and adding neighbors adds squares of one channel: up to 2^31,
 * which fits 32 bits without a sign. They are summed twice: as they are, in 32 bits that overflow, and their
 * upper halves alone. From both, the sum can be had exactly as long as the lower halves' sum fits 32 bits.
 */
static inline __attribute__((always_inline, target(TARGET))) void ADD_ROWS(const int16_t *data, size_t pairs,
                                                                           int vectors, sums_t *sums)
{
    enum { HALVES = 2, PAIRS_PER_FLUSH = 32768 };
    const size_t row = (size_t)vectors * LANES_X86;
    VECTOR high[VECTORS_MAX];
    VECTOR low[VECTORS_MAX];
    for (int v = 0; v < vectors; ++v)
        high[v] = low[v] = OP(setzero)();
    while (pairs > 0) {
        const size_t count = pairs < PAIRS_PER_FLUSH ? pairs : PAIRS_PER_FLUSH;
        VECTOR whole[VECTORS_MAX][HALVES];
        VECTOR upper[VECTORS_MAX][HALVES];
        for (int v = 0; v < vectors; ++v)
            whole[v][0] = whole[v][1] = upper[v][0] = upper[v][1] = OP(setzero)();
        for (size_t pair = 0; pair < count; ++pair, data += 2 * row) {
            for (int v = 0; v < vectors; ++v) {
                const VECTOR first = LOAD(data + (size_t)v * LANES_X86);
                const VECTOR second = LOAD(data + row + (size_t)v * LANES_X86);
                high[v] = OP(max_epi16)(high[v], OP(max_epi16)(first, second));
                low[v] = OP(min_epi16)(low[v], OP(min_epi16)(first, second));
                const VECTOR a = OP(unpacklo_epi16)(first, second);
                const VECTOR b = OP(unpackhi_epi16)(first, second);
                const VECTOR squaresA = OP(madd_epi16)(a, a);
                const VECTOR squaresB = OP(madd_epi16)(b, b);
                whole[v][0] = OP(add_epi32)(whole[v][0], squaresA);
                whole[v][1] = OP(add_epi32)(whole[v][1], squaresB);
                upper[v][0] = OP(add_epi32)(upper[v][0], OP(srli_epi32)(squaresA, 16));
                upper[v][1] = OP(add_epi32)(upper[v][1], OP(srli_epi32)(squaresB, 16));
            }
        }
        for (int v = 0; v < vectors; ++v) {
            uint32_t wholes[LANES_X86];
            uint32_t uppers[LANES_X86];
            memcpy(wholes, whole[v], sizeof wholes);
            memcpy(uppers, upper[v], sizeof uppers);
            for (int i = 0; i < LANES_X86; ++i) {
                const uint32_t lower = wholes[i] - (uppers[i] << 16);
                sums->squares[v * LANES_X86 + LANE(i)] += (double)(((uint64_t)uppers[i] << 16) + lower);
            }
        }
        pairs -= count;
    }
    for (int v = 0; v < vectors; ++v) {
        memcpy(sums->high + (size_t)v * LANES_X86, &high[v], sizeof high[v]);
        memcpy(sums->low + (size_t)v * LANES_X86, &low[v], sizeof low[v]);
    }
}

/* `vectors` is a constant in every call, which keeps the sums in registers. */
static __attribute__((target(TARGET))) void ADD_ALL_ROWS(const int16_t *samples, size_t pairs, int vectors,
                                                         sums_t *sums)
{
    switch (vectors) {
    case 1:
        ADD_ROWS(samples, pairs, 1, sums);
        break;
    case 3:
        ADD_ROWS(samples, pairs, 3, sums);
        break;
    case 5:
        ADD_ROWS(samples, pairs, 5, sums);
        break;
    default:
        ADD_ROWS(samples, pairs, 7, sums);
        break;
    }
}
