// Where planes lie, and how much history there is by default.
#include "layout.h"

#include <gtest/gtest.h>

using namespace shm;

namespace {

TEST(ShmLayout, PlanesStartOnPagesWithStridesThatGpusImport)
{
    for (const uint32_t format : {1u, 2u, 3u}) {
        for (const uint32_t width : {1u, 2u, 255u, 640u, 1025u, 1920u, 16384u}) {
            for (const uint32_t height : {1u, 3u, 480u, 1081u}) {
                const FrameLayout layout = frameLayout(width, height, format);
                ASSERT_EQ(layout.planeCount, format == 3 ? 2u : 3u);
                uint64_t bytes = 0;
                for (uint32_t p = 0; p < layout.planeCount; ++p) {
                    const PlaneLayout &plane = layout.planes[p];
                    EXPECT_EQ(plane.offset % 4096, 0u);
                    EXPECT_EQ(plane.stride % (format != 3 && p == 0 ? 512 : 256), 0u);
                    EXPECT_GE(plane.stride, plane.rowBytes);
                    EXPECT_LE(plane.offset + uint64_t{plane.stride} * plane.rows, layout.bytes);
                    bytes += uint64_t{plane.stride} * plane.rows;
                }
                EXPECT_LE(bytes, layout.bytes);
                EXPECT_EQ(layout.bytes % 4096, 0u);
                if (format != 3) {
                    EXPECT_EQ(layout.planes[1].stride * 2, layout.planes[0].stride);
                    // Y V U in memory, Y U V in the record.
                    EXPECT_EQ(layout.planes[1].offset > layout.planes[2].offset, format == 2);
                }
            }
        }
    }
}

TEST(ShmLayout, ChromaRoundsUpForOddSizes)
{
    const FrameLayout layout = frameLayout(5, 3, SHM_PIXEL_FORMAT_YUV420P);
    EXPECT_EQ(layout.planes[1].rowBytes, 3u);
    EXPECT_EQ(layout.planes[1].rows, 2u);
}

TEST(ShmLayout, WhatIsNoFormatHasNoPlanes)
{
    EXPECT_EQ(frameLayout(640, 480, 0).planeCount, 0u);
    EXPECT_EQ(frameLayout(640, 480, 4).planeCount, 0u);
    EXPECT_EQ(frameLayout(0, 480, 3).planeCount, 0u);
    EXPECT_EQ(frameLayout(16385, 480, 3).planeCount, 0u);
}

TEST(ShmLayout, DefaultHistoryIsThreeQuartersOfASecondWithinBounds)
{
    constexpr uint64_t kMiB = 1 << 20;
    EXPECT_EQ(defaultHistory(kMiB, 50, 1), 38u);
    EXPECT_EQ(defaultHistory(kMiB, 30000, 1001), 23u);
    EXPECT_EQ(defaultHistory(kMiB, 5, 1), 8u);        // at least 8
    EXPECT_EQ(defaultHistory(12 * kMiB, 60, 1), 21u); // at most 256 MiB
    EXPECT_EQ(defaultHistory(64 * kMiB, 60, 1), 8u);  // but 8 all the same
    EXPECT_EQ(defaultHistory(kMiB, 0, 0), 45u);       // unknown: as for 60
    EXPECT_EQ(defaultHistory(4096, 4000000000u, 1), 200u);
}

} // namespace
