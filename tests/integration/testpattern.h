#pragma once

#include <shm/shm_types.h>

#include <cstdint>

/*
 * What the test publisher publishes and its tests expect: eight vertical bars of saturated color over the
 * upper three quarters, and below them the frame's number in sixteen black or white blocks, highest bit
 * first.
 */
struct TestPattern
{
    int width;
    int height;
    int pixelFormat; /* SHM_PIXEL_FORMAT_YUV420P or SHM_PIXEL_FORMAT_NV12 */
    shm_color_t color;

    /* `planes` are Y, U, V or Y, UV. */
    void draw(uint8_t *const planes[4], const int32_t strides[4], unsigned number) const;

    /* The lines of the number blocks only. */
    void drawNumber(uint8_t *const planes[4], const int32_t strides[4], unsigned number) const;

    /* First line of the number blocks. */
    int numberTop() const { return height * 3 / 4 / 2 * 2; }

private:
    void drawFrom(int top, uint8_t *const planes[4], const int32_t strides[4], unsigned number) const;
};
