// Too few descriptors, too little address space, too small files: whoever meets such a limit is told, nothing
// is left behind, and the same process carries on once the limit is gone.
#include "../remedies.h"
#include "../unit/shm_testing.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <set>

using namespace testing_shm;

namespace {

class ShmLimits : public ::testing::Test
{
protected:
    StoreDirectory directory;
};

class Limit
{
public:
    Limit(int which, rlim_t value) : m_which(which)
    {
        getrlimit(static_cast<__rlimit_resource>(which), &m_before);
        rlimit limit = m_before;
        limit.rlim_cur = std::min(value, m_before.rlim_max);
        setrlimit(static_cast<__rlimit_resource>(which), &limit);
    }
    ~Limit() { setrlimit(static_cast<__rlimit_resource>(m_which), &m_before); }
    Limit(const Limit &) = delete;
    Limit &operator=(const Limit &) = delete;

private:
    int m_which;
    rlimit m_before = {};
};

rlim_t addressSpaceInUse()
{
    std::ifstream statm("/proc/self/statm");
    rlim_t pages = 0;
    statm >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

struct Tally
{
    int opened = 0;
    int refused = 0;
    std::set<int> codes; // of those
};

// Opens under every limit; `open` answers whether it worked and, if not, with an error.
template <class Open>
Tally sweep(int which, const std::vector<rlim_t> &limits, Open &&open)
{
    Tally tally;
    const size_t descriptors = openDescriptors();
    const size_t mappings = shmMappings();
    for (const rlim_t limit : limits) {
        shm_error_t error = {};
        bool worked = false;
        {
            const Limit limited(which, limit);
            worked = open(&error);
        }
        (worked ? tally.opened : tally.refused)++;
        if (!worked) {
            EXPECT_LT(error.code, 0) << "limit " << limit;
            EXPECT_TRUE(namesARemedy(error.message)) << "limit " << limit << ": " << error.message;
            tally.codes.insert(error.code);
        }
        EXPECT_EQ(openDescriptors(), descriptors) << "limit " << limit << ": " << error.message;
        EXPECT_EQ(shmMappings(), mappings) << "limit " << limit << ": " << error.message;
        if (::testing::Test::HasFailure())
            break;
    }
    return tally;
}

std::vector<rlim_t> steps(rlim_t first, rlim_t last, rlim_t step)
{
    std::vector<rlim_t> values;
    for (rlim_t value = first; value <= last; value += step)
        values.push_back(value);
    return values;
}

// A store in another process, so that the limit is this one's alone.
std::unique_ptr<Child> store()
{
    auto child = std::make_unique<Child>([](Child &self) {
        const Writer writer = openWriter(smallVideo("s"));
        self.tell(writer && publishFrame(writer.get(), 1000, 7) == 0 ? 'x' : '!');
        self.hear();
        return 0;
    });
    EXPECT_EQ(child->hear(), 'x');
    return child;
}

bool readsFrame(shm_error_t *error)
{
    const Reader reader = openReader("s", error, 0, 2000);
    if (!reader)
        return false;
    shm_video_frame_t frame;
    EXPECT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(frame.planes[0][0], 7);
    return true;
}

TEST_F(ShmLimits, AReaderWithAnyNumberOfDescriptorsLeft)
{
    const auto other = store();
    shm_error_t error = {};
    ASSERT_TRUE(readsFrame(&error)) << error.message; // what the first use keeps is there
    const auto used = static_cast<rlim_t>(openDescriptors());
    const Tally tally = sweep(RLIMIT_NOFILE, steps(used - 1, used + 80, 1), readsFrame);
    EXPECT_GT(tally.refused, 5);
    EXPECT_GT(tally.opened, 5);
    EXPECT_EQ(tally.codes, std::set<int>({-EMFILE})) << "neither a dead writer nor a damaged message";
    EXPECT_TRUE(readsFrame(&error)) << error.message;
}

TEST_F(ShmLimits, AWriterWithAnyNumberOfDescriptorsLeft)
{
    const auto publishes = [](shm_error_t *error) {
        const Writer writer = openWriter(smallVideo("w"), error);
        return writer && publishFrame(writer.get(), 1000, 1) == 0;
    };
    shm_error_t error = {};
    ASSERT_TRUE(publishes(&error)) << error.message;
    const auto used = static_cast<rlim_t>(openDescriptors());
    const Tally tally = sweep(RLIMIT_NOFILE, steps(used - 1, used + 80, 1), publishes);
    EXPECT_GT(tally.refused, 5);
    EXPECT_GT(tally.opened, 5);
    EXPECT_TRUE(directory.files().empty());
}

TEST_F(ShmLimits, AReaderWithAnyAddressSpaceLeft)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers reserve more address space than any limit leaves";
#endif
    const auto other = store();
    shm_error_t error = {};
    ASSERT_TRUE(readsFrame(&error)) << error.message;
    const rlim_t used = addressSpaceInUse();
    const Tally tally = sweep(RLIMIT_AS, steps(used, used + 1024 * 1024, 8192), readsFrame);
    EXPECT_GT(tally.refused, 5);
    EXPECT_GT(tally.opened, 5);
    EXPECT_TRUE(readsFrame(&error)) << error.message;
}

TEST_F(ShmLimits, AWriterWithAnyAddressSpaceLeft)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers reserve more address space than any limit leaves";
#endif
    const auto publishes = [](shm_error_t *error) {
        const Writer writer = openWriter(smallVideo("w"), error);
        return writer && publishFrame(writer.get(), 1000, 1) == 0;
    };
    shm_error_t error = {};
    ASSERT_TRUE(publishes(&error)) << error.message;
    const rlim_t used = addressSpaceInUse();
    const Tally tally = sweep(RLIMIT_AS, steps(used, used + 2 * 1024 * 1024, 8192), publishes);
    EXPECT_GT(tally.refused, 5);
    EXPECT_GT(tally.opened, 5);
    EXPECT_TRUE(directory.files().empty());
}

// A limit of file sizes holds for memory files too, and its signal would end the process.
TEST_F(ShmLimits, AWriterThatMayNotMakeLargeFilesIsTold)
{
    shm_error_t error = {};
    {
        const Limit limited(RLIMIT_FSIZE, 16384);
        EXPECT_FALSE(openWriter(smallVideo("w"), &error));
    }
    EXPECT_LT(error.code, 0);
    EXPECT_NE(std::string(error.message).find("w"), std::string::npos) << error.message;
    EXPECT_TRUE(openWriter(smallVideo("w"), &error)) << error.message;
}

// The writer meets its limit while it serves: those that are connected go on, and newcomers are served again
// later.
TEST_F(ShmLimits, AWriterThatRunsOutOfDescriptorsServesThoseItHas)
{
    Child late([](Child &self) {
        self.hear();
        shm_error_t error = {};
        return openReader("s", &error, 0, 300) ? 1 : 0;
    });
    const Writer writer = openWriter(smallVideo("s"));
    ASSERT_EQ(publishFrame(writer.get(), 1000, 7), 0);
    const Reader first = openReader("s");
    ASSERT_TRUE(first);
    {
        const Limit limited(RLIMIT_NOFILE, static_cast<rlim_t>(openDescriptors()) - 1);
        late.tell();
        EXPECT_EQ(late.exitCode(), 0);
        for (int i = 2; i < 60; ++i)
            EXPECT_EQ(publishFrame(writer.get(), i * 1000, 7), 0);
        shm_video_frame_t frame;
        EXPECT_EQ(lockFrame(first.get(), &frame, SHM_VIDEO_NEWEST), 0);
        EXPECT_EQ(shm_reader_is_ready(first.get()), 1);
    }
    Reader second;
    shm_error_t error = {};
    EXPECT_TRUE(eventually([&] { return (second = openReader("s", &error)) != nullptr; })) << error.message;
}

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
