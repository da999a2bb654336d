// The command-line tool's memory kinds as real processes: the kernel's DMA-bufs and huge pages in the virtual
// machine, stand-ins for the former in the fast tier.
#include "udmabuflimit.h"
#include "zevshm_driver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace driver;

namespace {

class DmabufPublish : public testing::Test
{
protected:
    StoreDirectory stores;
};

class EveryExport : public DmabufPublish, public testing::WithParamInterface<const char *>
{};

std::vector<std::string> publishing(const std::string &memory, const std::vector<std::string> &options = {})
{
    std::vector<std::string> arguments = {"publish", "cam",        "test:",     "--size", "320x240",  "--fps",
                                          "10",      "--no-audio", "--history", "4",      "--memory", memory};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return arguments;
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// What `info` says, run by a user who is but a member of the store's group.
Result infoAsMember(gid_t group)
{
    int ends[2];
    if (pipe(ends) != 0)
        return {-1, "", "no pipe"};
    const pid_t child = fork();
    if (child == 0) {
        if (setgroups(1, &group) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
            _exit(100);
        const Result result = run({"info", "cam"});
        const std::string said = result.output + result.errors;
        _exit(write(ends[1], said.data(), said.size()) == static_cast<ssize_t>(said.size()) ? result.code
                                                                                            : 101);
    }
    close(ends[1]);
    std::string said;
    char buffer[4096];
    ssize_t got;
    while ((got = read(ends[0], buffer, sizeof buffer)) > 0)
        said.append(buffer, static_cast<size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), said, ""};
}

} // namespace

TEST_P(EveryExport, infoSaysYesAndReadersGetADescriptor)
{
    Zevshm publisher(publishing(GetParam()));
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader && waitForFrames(reader.get(), 1)) << publisher.errors();
    const Result text = run({"info", "cam"});
    EXPECT_EQ(text.code, 0) << text.errors;
    EXPECT_TRUE(contains(text.output, "  DMA-buf   yes\n")) << text.output;
    EXPECT_TRUE(contains(text.output, "), " + std::string(GetParam()) + "\n")) << text.output;
    const Result json = run({"info", "cam", "--json"});
    EXPECT_EQ(json.code, 0) << json.errors;
    std::string members = json.output;
    members.erase(std::remove(members.begin(), members.end(), ' '), members.end());
    EXPECT_TRUE(contains(members, "\"dmabuf\":\"yes\"")) << json.output;
    EXPECT_TRUE(contains(members, "\"memory\":\"" + std::string(GetParam()) + "\"")) << json.output;

    ASSERT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0);
    const Frame frame(reader.get());
    ASSERT_TRUE(frame);
    EXPECT_GE(shm_reader_get_dmabuf_fd(reader.get()), 0);
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_EQ(publisher.errors(), "");
}

TEST_P(EveryExport, otherUsersImportWithThePublishersLeaveOnly)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    const struct group *shared = getgrnam("nogroup");
    if (!shared)
        GTEST_SKIP() << "there is no group nogroup";
    const gid_t group = shared->gr_gid;
    ASSERT_EQ(chmod(stores.path().c_str(), 0755), 0);
    const bool isHeap = std::strncmp(GetParam(), "dma-heap", 8) == 0;
    {
        Zevshm publisher(publishing(GetParam(), {"--group", "nogroup"}));
        ASSERT_TRUE(openStore("cam")) << publisher.errors();
        const Result told = infoAsMember(group);
        if (isHeap) { // such memory cannot be mapped without its DMA-buf
            EXPECT_EQ(told.code, 6) << told.output;
            EXPECT_TRUE(contains(told.output, "which the publisher does not share with other users"))
                << told.output;
        } else {
            EXPECT_EQ(told.code, 0) << told.output;
            EXPECT_TRUE(contains(told.output, "  DMA-buf   no: the publisher does not share DMA-bufs, which "
                                              "can be written, with other users\n"))
                << told.output;
        }
        publisher.signal(SIGINT);
        EXPECT_EQ(publisher.wait(), 0);
    }
    Zevshm publisher(publishing(GetParam(), {"--group", "nogroup", "--dmabuf-others"}));
    ASSERT_TRUE(openStore("cam")) << publisher.errors();
    const Result told = infoAsMember(group);
    EXPECT_EQ(told.code, 0) << told.output;
    EXPECT_TRUE(contains(told.output, "  DMA-buf   yes\n")) << told.output;
}

INSTANTIATE_TEST_SUITE_P(Memory, EveryExport, testing::Values("udmabuf", "dma-heap:system"));

TEST_F(DmabufPublish, tellsWhyOnceWhenFramesAreBeyondTheKernelsLimit)
{
    const UdmabufLimit limit;
    ASSERT_TRUE(limit.set(0));
    Zevshm publisher(publishing("udmabuf"));
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader && waitForFrames(reader.get(), 2)) << publisher.errors();
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_EQ(publisher.errors(),
              "zevshm: frames have no DMA-buf: udmabuf refuses frames of 188416 bytes; raise "
              "its parameter size_limit_mb\n");
}

// A reader that pins frames makes the publisher add memory, which the kernel does not export any more.
TEST_F(DmabufPublish, tellsOnceOfMemoryThatIsAddedWithoutOne)
{
    const UdmabufLimit limit;
    Zevshm publisher(publishing("udmabuf"));
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader && waitForFrames(reader.get(), 1)) << publisher.errors();
    ASSERT_TRUE(limit.set(0));
    std::vector<std::unique_ptr<Frame>> kept;
    const std::string expected =
        "zevshm: some frames have no DMA-buf: udmabuf refuses frames of 188416 bytes; raise "
        "its parameter size_limit_mb\n";
    EXPECT_TRUE(waitFor([&] {
        auto newest = std::make_unique<Frame>(reader.get());
        if (kept.size() < 7 && (kept.empty() || (*kept.back())->timestamp != (*newest)->timestamp))
            kept.push_back(std::move(newest));
        return !publisher.errors().empty();
    }));
    const Result text = run({"info", "cam"});
    EXPECT_TRUE(contains(text.output, "  DMA-buf   yes, but not for memory that was added: udmabuf refuses "))
        << text.output;
    kept.clear();
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_EQ(publisher.errors(), expected);
}

// Sets aside huge pages, so it is for a kernel that nobody else uses.
TEST_F(DmabufPublish, huge)
{
    const char *artifacts = std::getenv("RIG_ARTIFACTS");
    if (!artifacts || std::strcmp(artifacts, "/mnt/artifacts") != 0)
        GTEST_SKIP() << "huge pages are set aside in the virtual machine only";
    const char *count = "/proc/sys/vm/nr_hugepages";
    std::ofstream(count) << 64 << std::flush;
    int pages = 0;
    std::ifstream(count) >> pages;
    ASSERT_GT(pages, 32);
    Zevshm publisher(publishing("huge"));
    Reader reader;
    ASSERT_TRUE(waitFor([&] {
        reader.reset(shm_reader_open("cam", 1000));
        return reader != nullptr || !publisher.running();
    }));
    ASSERT_TRUE(reader) << publisher.errors();
    ASSERT_TRUE(waitForFrames(reader.get(), 2));
    EXPECT_TRUE(Frame(reader.get()));
    const Result text = run({"info", "cam"});
    EXPECT_TRUE(contains(text.output, "), huge\n")) << text.output;
    EXPECT_TRUE(contains(text.output,
                         "  DMA-buf   no: frames are in huge pages; publish with the memory kind udmabuf\n"))
        << text.output;
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_EQ(publisher.errors(), ""); // nobody asked for a DMA-buf
    std::ofstream(count) << 0 << std::flush;
}
