// The binary interface: sizes and offsets of the records, as C and as C++ see them, and names.
#include <shm/shm_reader.h>
#include <shm/shm_writer.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

extern "C" size_t shm_record_fact(int which);

namespace {

TEST(ShmRecords, LieWhereTheyAlwaysLay)
{
    // If this fails, programs that are built already read the wrong bytes: the record must not change.
    const size_t expected[] = {40, 56, 32, 120, 0,  4,  8, 12, 16, 20, 28, 32, 36,
                               0,  24, 32, 0,   16, 24, 0, 4,  8,  16, 48, 88};
    for (int i = 0; i < static_cast<int>(std::size(expected)); ++i)
        EXPECT_EQ(shm_record_fact(i), expected[i]) << "fact " << i;
    EXPECT_EQ(sizeof(shm_video_frame_t), shm_record_fact(3));
    EXPECT_EQ(sizeof(shm_video_lookup_mode_t), 4u);
    EXPECT_EQ(SHM_VIDEO_NEAREST, 0);
    EXPECT_EQ(SHM_VIDEO_NEWEST, 1);
    EXPECT_EQ(SHM_PIXEL_FORMAT_NV12, 3);
}

TEST(ShmNames, AllowedAndRefused)
{
    const struct
    {
        std::string name;
        int result;
    } cases[] = {
        {"a", 0},         {"Camera_1.main-2", 0}, {std::string(64, 'x'), 0}, {std::string(65, 'x'), -EINVAL},
        {"", -EINVAL},    {".", -EINVAL},         {"..", -EINVAL},           {".a", -EINVAL},
        {"a/b", -EINVAL}, {"../a", -EINVAL},      {"a b", -EINVAL},          {"a;2", -EINVAL},
        {"a\n", -EINVAL}, {"\xff", -EINVAL}};
    for (const auto &one : cases) {
        shm_error_t error = {};
        EXPECT_EQ(shm_check_name(one.name.c_str(), &error), one.result) << one.name;
        EXPECT_EQ(error.message[0] != '\0', one.result != 0) << one.name;
        EXPECT_EQ(std::string(error.message).find('\n'), std::string::npos);
    }
    EXPECT_EQ(shm_check_name(nullptr, nullptr), -EINVAL);
}

TEST(ShmNames, OfValues)
{
    EXPECT_STREQ(shm_pixel_format_name(SHM_PIXEL_FORMAT_NV12), "nv12");
    EXPECT_STREQ(shm_pixel_format_name(99), "unknown");
    EXPECT_STREQ(shm_matrix_name(SHM_MATRIX_BT709), "bt709");
    EXPECT_STREQ(shm_range_name(SHM_RANGE_FULL), "full");
    EXPECT_STREQ(shm_transfer_name(SHM_TRANSFER_PQ), "pq");
    EXPECT_STREQ(shm_siting_name(SHM_SITING_LEFT), "left");
    for (const auto name : {shm_matrix_name, shm_range_name, shm_transfer_name, shm_siting_name})
        EXPECT_STREQ(name(0), "unknown");
    EXPECT_STREQ(shm_capture_name(SHM_CAPTURE_COPIED), "copied");
    EXPECT_STREQ(shm_capture_name(SHM_CAPTURE_DMABUF), "dmabuf");
    EXPECT_STREQ(shm_capture_name(SHM_CAPTURE_USERPTR), "userptr");
    EXPECT_STREQ(shm_capture_name(SHM_CAPTURE_NONE), "none");
}

} // namespace
