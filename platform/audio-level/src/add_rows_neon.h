/*
 * Adds groups of three rows, exactly, with the vectors that every AArch64 processor has. Three squares of one
 * lane fit 32 bits without a sign; with every row they would have to be widened to 64 bits, which takes as
 * long as squaring them.
 */
static inline __attribute__((always_inline)) void add_rows(const int16_t *data, size_t groups, int vectors,
                                                           sums_t *sums)
{
    enum { QUARTERS = 4 };
    const size_t row = (size_t)vectors * LANES;
    int16x8_t high[VECTORS_MAX];
    int16x8_t low[VECTORS_MAX];
    uint64x2_t squares[VECTORS_MAX][QUARTERS];
    for (int v = 0; v < vectors; ++v) {
        high[v] = low[v] = vdupq_n_s16(0);
        for (int i = 0; i < QUARTERS; ++i)
            squares[v][i] = vdupq_n_u64(0);
    }
    for (; groups > 0; --groups, data += ROWS_PER_GROUP * row) {
        for (int v = 0; v < vectors; ++v) {
            const int16x8_t a = vld1q_s16(data + v * LANES);
            const int16x8_t b = vld1q_s16(data + row + v * LANES);
            const int16x8_t c = vld1q_s16(data + 2 * row + v * LANES);
            high[v] = vmaxq_s16(high[v], vmaxq_s16(a, vmaxq_s16(b, c)));
            low[v] = vminq_s16(low[v], vminq_s16(a, vminq_s16(b, c)));
            int32x4_t lower = vmull_s16(vget_low_s16(a), vget_low_s16(a));
            int32x4_t upper = vmull_s16(vget_high_s16(a), vget_high_s16(a));
            lower = vmlal_s16(lower, vget_low_s16(b), vget_low_s16(b));
            upper = vmlal_s16(upper, vget_high_s16(b), vget_high_s16(b));
            lower = vmlal_s16(lower, vget_low_s16(c), vget_low_s16(c));
            upper = vmlal_s16(upper, vget_high_s16(c), vget_high_s16(c));
            squares[v][0] = vaddw_u32(squares[v][0], vget_low_u32(vreinterpretq_u32_s32(lower)));
            squares[v][1] = vaddw_u32(squares[v][1], vget_high_u32(vreinterpretq_u32_s32(lower)));
            squares[v][2] = vaddw_u32(squares[v][2], vget_low_u32(vreinterpretq_u32_s32(upper)));
            squares[v][3] = vaddw_u32(squares[v][3], vget_high_u32(vreinterpretq_u32_s32(upper)));
        }
    }
    for (int v = 0; v < vectors; ++v) {
        vst1q_s16(sums->high + v * LANES, high[v]);
        vst1q_s16(sums->low + v * LANES, low[v]);
        for (int i = 0; i < QUARTERS; ++i) {
            sums->squares[v * LANES + 2 * i] = (double)vgetq_lane_u64(squares[v][i], 0);
            sums->squares[v * LANES + 2 * i + 1] = (double)vgetq_lane_u64(squares[v][i], 1);
        }
    }
}
