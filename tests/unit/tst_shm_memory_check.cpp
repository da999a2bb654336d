// Memory is compared with every limit before any is taken.
#include "memory_check.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

using namespace shm;

namespace {

int check(const MemoryNeed &need, const MemoryFacts &facts, std::string *message = nullptr)
{
    shm_error_t error = {};
    const int result = checkMemory(need, facts, "a", &error);
    if (message != nullptr)
        *message = error.message;
    return result;
}

TEST(ShmMemoryCheck, EveryLimitCounts)
{
    MemoryNeed need;
    need.bytes = 1000;
    need.largestObject = 500;
    need.descriptors = 20;
    EXPECT_EQ(check(need, MemoryFacts{}), 0);
    MemoryFacts facts;
    facts.systemAvailable = 1000;
    EXPECT_EQ(check(need, facts), 0);
    std::string message;
    facts.systemAvailable = 999;
    EXPECT_EQ(check(need, facts, &message), -ENOMEM);
    EXPECT_NE(message.find("needs 1000 bytes and 999 are available"), std::string::npos) << message;
    facts = MemoryFacts{};
    facts.groupAvailable = 998;
    EXPECT_EQ(check(need, facts, &message), -ENOMEM);
    EXPECT_NE(message.find("998"), std::string::npos) << message;
    facts = MemoryFacts{};
    facts.addressAvailable = 997;
    EXPECT_EQ(check(need, facts), -ENOMEM);
    facts = MemoryFacts{};
    facts.fileLimit = 499;
    EXPECT_EQ(check(need, facts), -EFBIG);
    facts = MemoryFacts{};
    facts.descriptorsAvailable = 19;
    EXPECT_EQ(check(need, facts), -EMFILE);
    need.hugeBytes = 1;
    EXPECT_EQ(check(need, MemoryFacts{}, &message), -ENOMEM);
    EXPECT_NE(message.find("huge"), std::string::npos) << message;
}

class ShmMemoryFacts : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(root.data()), nullptr); }
    void TearDown() override { std::filesystem::remove_all(root); }
    void put(const std::string &path, const std::string &text)
    {
        std::filesystem::create_directories(std::filesystem::path(root + "/" + path).parent_path());
        std::ofstream(root + "/" + path) << text;
    }
    MemoryFacts facts() const { return readMemoryFacts((root + "/").c_str()); }
    std::string root = "/tmp/zev-facts-XXXXXX";
};

TEST_F(ShmMemoryFacts, AreReadFromTheSystem)
{
    put("proc/meminfo", "MemTotal: 100 kB\nMemAvailable:    64 kB\nHugePages_Free:  5\nHugePages_Rsvd: 2\n"
                        "Hugepagesize:  2048 kB\n");
    EXPECT_EQ(facts().systemAvailable, 65536u);
    EXPECT_EQ(facts().hugeAvailable, 3u * 2048 * 1024);
    EXPECT_EQ(facts().groupAvailable, kNoLimit);
}

TEST_F(ShmMemoryFacts, TheTightestControlGroupAboveCounts)
{
    put("proc/self/cgroup", "0::/a/b/c\n");
    put("sys/fs/cgroup/a/b/c/memory.max", "max\n");
    put("sys/fs/cgroup/a/b/memory.max", "1000\n");
    put("sys/fs/cgroup/a/b/memory.current", "700\n");
    put("sys/fs/cgroup/a/b/memory.stat", "anon 600\ninactive_file 50\n");
    put("sys/fs/cgroup/a/memory.max", "5000\n");
    put("sys/fs/cgroup/a/memory.current", "900\n");
    EXPECT_EQ(facts().groupAvailable, 350u);
    // In a container the group is seen as the root.
    put("proc/self/cgroup", "0::/\n");
    put("sys/fs/cgroup/memory.max", "800\n");
    put("sys/fs/cgroup/memory.current", "900\n");
    EXPECT_EQ(facts().groupAvailable, 0u);
}

TEST_F(ShmMemoryFacts, TheOlderHierarchyIsKnownToo)
{
    put("proc/self/cgroup", "5:cpu,memory:/x\n1:name=systemd:/y\n");
    put("sys/fs/cgroup/memory/x/memory.limit_in_bytes", "2000\n");
    put("sys/fs/cgroup/memory/x/memory.usage_in_bytes", "500\n");
    put("sys/fs/cgroup/memory/memory.limit_in_bytes", "9223372036854771712\n");
    EXPECT_EQ(facts().groupAvailable, 1500u);
}

TEST_F(ShmMemoryFacts, AreNoLimitWhereNothingIsKnown)
{
    EXPECT_EQ(facts().systemAvailable, kNoLimit);
    EXPECT_EQ(facts().groupAvailable, kNoLimit);
    EXPECT_EQ(facts().hugeAvailable, 0u);
}

} // namespace
