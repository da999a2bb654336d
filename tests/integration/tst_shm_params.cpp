// What a writer is told to do, and what it says when it cannot: the record of another version, and the places
// where nothing can be published.
#include "../unit/shm_testing.h"

#include <sys/stat.h>

using namespace testing_shm;

namespace {

// As a program has it that was built with a newer header.
struct LongerParams
{
    shm_writer_params_t known;
    unsigned char later[24];
};

class ShmParams : public ::testing::Test
{
protected:
    // Why the store cannot be opened, "" when it can.
    std::string refusal(const shm_writer_params_t &params)
    {
        shm_error_t error = {};
        const Writer writer = openWriter(params, &error);
        result = error.code;
        return writer ? std::string() : std::string(error.message);
    }

    StoreDirectory directory;
    int result = 0;
};

TEST_F(ShmParams, InitFillsWhatTheProgramHasRoomFor)
{
    for (const size_t size : {size_t{4}, size_t{16}, sizeof(shm_writer_params_t), sizeof(LongerParams)}) {
        LongerParams params;
        std::memset(static_cast<void *>(&params), 0x5a, sizeof params);
        shm_writer_params_init_sized(&params.known, size);
        EXPECT_EQ(params.known.size, size);
        unsigned char bytes[sizeof params];
        std::memcpy(bytes, &params, sizeof params);
        for (size_t i = sizeof(shm_writer_params_t); i < size; ++i)
            EXPECT_EQ(bytes[i], 0) << "byte " << i << " of " << size;
        for (size_t i = size; i < sizeof params; ++i)
            EXPECT_EQ(bytes[i], 0x5a) << "byte " << i << " beyond " << size;
    }
    uint32_t untouched = 7;
    shm_writer_params_init_sized(reinterpret_cast<shm_writer_params_t *>(&untouched), 3);
    EXPECT_EQ(untouched, 7u);
    shm_writer_params_init_sized(nullptr, 100);
}

TEST_F(ShmParams, ARecordOfANewerProgramIsUnderstoodUnlessItAsksForMore)
{
    LongerParams params;
    shm_writer_params_init_sized(&params.known, sizeof params);
    shm_writer_params_t small = smallVideo("a");
    small.size = params.known.size;
    params.known = small;
    EXPECT_EQ(refusal(params.known), "");
    params.later[sizeof params.later - 1] = 1;
    EXPECT_NE(refusal(params.known).find("use a newer one"), std::string::npos);
    EXPECT_EQ(result, -EINVAL);
}

TEST_F(ShmParams, ARecordThatWasNeverInitialisedIsRefused)
{
    const auto first = uint32_t(offsetof(shm_writer_params_t, lent_frames)); // of the first version's record
    for (const uint32_t size : {0u, 8u, first - 1u, 0xffffffffu}) {
        shm_writer_params_t params = smallVideo("a");
        params.size = size;
        EXPECT_NE(refusal(params).find("shm_writer_params_init"), std::string::npos) << size;
        EXPECT_EQ(result, -EINVAL);
    }
}

TEST_F(ShmParams, ARecordOfAnOlderProgramEndsWhereItEnds)
{
    shm_writer_params_t params = smallVideo("a");
    params.size = offsetof(shm_writer_params_t, lent_frames);
    params.lent_frames = SHM_LENT_MAX + 1; // not that program's
    const Writer writer = openWriter(params);
    ASSERT_TRUE(writer);
    EXPECT_EQ(statsOf(writer.get()).slot_count, 12);
}

TEST_F(ShmParams, ADirectoryThatWillNotDoIsNamedWithTheRemedy)
{
    const std::string file = directory.path() + "/file";
    const std::string missing = directory.path() + "/missing";
    std::ofstream(file) << "x";
    shm_writer_params_t params = smallVideo("a");

    setenv("ZEV_SHM_DIR", missing.c_str(), 1);
    EXPECT_EQ(refusal(params), "directory " + missing + " does not exist: create it or correct ZEV_SHM_DIR");
    EXPECT_EQ(result, -ENOENT);
    setenv("ZEV_SHM_DIR", file.c_str(), 1);
    EXPECT_EQ(refusal(params), file + " is not a directory: make it one or correct ZEV_SHM_DIR");
    EXPECT_EQ(result, -ENOTDIR);
    // The program's choice is not the environment's to correct.
    params.directory = file.c_str();
    EXPECT_EQ(refusal(params), file + " is not a directory: make it one or name another one");
}

// As a user without rights; root may write anywhere.
TEST_F(ShmParams, ADirectoryOfSomebodyElseIsNamedWithTheRemedy)
{
    const std::string closed = directory.path() + "/closed";
    ASSERT_EQ(mkdir(closed.c_str(), 0555), 0);
    chmod(directory.path().c_str(), 0755);
    setenv("ZEV_SHM_DIR", closed.c_str(), 1);
    Child user([&](Child &) {
        if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            return 77;
        const std::string expected = "directory " + closed +
                                     " cannot be written: Permission denied; make it yours or correct "
                                     "ZEV_SHM_DIR";
        return refusal(smallVideo("a")) == expected ? 0 : 1;
    });
    EXPECT_EQ(user.exitCode(), 0);
}

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
