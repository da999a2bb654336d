// What another user can do with a store: find it or not, read it when it is shared, and alter nothing.
//
// Needs root, to become somebody else; skipped otherwise. The numbers of users and groups need not exist.
#include "../unit/shm_testing.h"
#include "messages.h"
#include "writer.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <optional>

using namespace testing_shm;
using namespace shm;

namespace {

constexpr unsigned kStranger = 12345;
constexpr unsigned kStrangersGroup = 23456;

class ShmRights : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (getuid() != 0)
            GTEST_SKIP() << "only root can become another user";
        chmod(directory.path().c_str(), 0755);
    }
    static bool become(unsigned user, unsigned group)
    {
        const gid_t groups[1] = {group};
        return setgroups(1, groups) == 0 && setgid(65534) == 0 && setuid(user) == 0;
    }
    // The number of a group that a store can be shared with by name.
    static std::optional<unsigned> sharedGroup()
    {
        const group *found = getgrnam("video");
        return found != nullptr ? std::optional<unsigned>(found->gr_gid) : std::nullopt;
    }
    StoreDirectory directory;
};

// The socket alone, without the library and what it refrains from.
UniqueFd connectRaw(const std::string &path)
{
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        fd.reset();
    return fd;
}

struct Received
{
    WelcomeMessage layout{};
    std::vector<UniqueFd> store; // index, control page, audio
    std::vector<UniqueFd> slots;
    std::vector<UniqueFd> dmabufs;
    bool hungUp = false;
};

// What the writer gives to who asks for everything.
Received takeEverything(int socket, bool dmabufs)
{
    Received received;
    auto hello = makeMessage<HelloMessage>(kHello);
    hello.maxLocks = 8;
    sendMessage(socket, &hello, sizeof hello, nullptr, 0);
    Message message;
    bool done = false;
    while (!done) {
        int result = 0;
        if (!eventually([&] { return (result = receiveMessage(socket, &message)) != -EAGAIN; }) ||
            result != 0) {
            received.hungUp = true;
            break;
        }
        switch (message.header().type) {
        case kWelcome:
            std::memcpy(&received.layout, message.bytes, sizeof received.layout);
            received.store = std::move(message.fds);
            break;
        case kSlots:
            for (UniqueFd &fd : message.fds)
                received.slots.push_back(std::move(fd));
            break;
        case kReady:
            if (dmabufs) {
                const auto want = makeMessage<WantDmabufsMessage>(kWantDmabufs);
                sendMessage(socket, &want, sizeof want, nullptr, 0);
            } else {
                done = true;
            }
            break;
        case kDmabufs:
            for (UniqueFd &fd : message.fds)
                received.dmabufs.push_back(std::move(fd));
            done = true;
            break;
        default:
            break;
        }
        message.fds.clear();
    }
    return received;
}

// The first way in which this memory can be altered through this descriptor; empty when there is none.
std::string wayToAlter(int fd, size_t bytes)
{
    void *writable = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (writable != MAP_FAILED)
        return "mapping it writable";
    void *readable = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
    if (readable == MAP_FAILED)
        return "reading it is not possible";
    const bool turned = mprotect(readable, bytes, PROT_READ | PROT_WRITE) == 0;
    // Throws pages of the object away, not of this mapping alone.
    const bool removed = madvise(readable, 4096, MADV_REMOVE) == 0;
    munmap(readable, bytes);
    if (turned)
        return "making a mapping writable";
    if (removed)
        return "removing pages of a mapping";
    const char byte = 'x';
    if (pwrite(fd, &byte, 1, 0) == 1)
        return "writing";
    if (fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096) == 0)
        return "punching a hole";
    if (fallocate(fd, FALLOC_FL_ZERO_RANGE, 0, 4096) == 0)
        return "zeroing a range";
    if (ftruncate(fd, 0) == 0 || ftruncate(fd, static_cast<off_t>(2 * bytes)) == 0)
        return "changing its size";
    if (fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE) == 0)
        return "sealing it";
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const bool canChange = fchmod(fd, 0666) == 0 || chmod(path.c_str(), 0666) == 0;
    if (canChange)
        return "changing its mode";
    const UniqueFd again(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!again)
        return "";
    // A descriptor opened for writing is of no use where a seal stands against it.
    writable = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, again.get(), 0);
    if (writable != MAP_FAILED || pwrite(again.get(), &byte, 1, 0) == 1 ||
        fallocate(again.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096) == 0)
        return "opening it again through /proc";
    return "";
}

// A store with everything in it, for the group.
shm_writer_params_t sharedStore()
{
    shm_writer_params_t params = smallVideo("a");
    params.sample_rate = 48000;
    params.channels = 2;
    params.group = "video";
    return params;
}

TEST_F(ShmRights, AStoreIsPrivateUnlessItIsShared)
{
    Child other([](Child &self) {
        self.hear();
        shm_error_t error = {};
        if (!become(12345, 23456))
            return 9;
        const Reader reader = openReader("a", &error);
        return !reader && error.code == -EACCES ? 0 : 1;
    });
    Writer writer = openWriter(smallVideo("a"));
    struct stat status = {};
    ASSERT_EQ(stat((directory.path() + "/a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    other.tell();
    EXPECT_EQ(other.exitCode(), 0);
}

TEST_F(ShmRights, TheGroupReadsButCannotAlterAPixel)
{
    const group *shared = getgrnam("video");
    if (shared == nullptr)
        GTEST_SKIP() << "there is no group \"video\" here";
    const unsigned gid = shared->gr_gid;
    Child other([gid](Child &self) {
        self.hear();
        if (!become(12345, gid))
            return 9;
        shm_error_t error = {};
        const Reader reader = openReader("a", &error);
        if (!reader)
            return 1;
        shm_video_frame_t frame;
        if (lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST) != 0 || frame.planes[0][0] != 5)
            return 2;
        // Neither through the mapping it has, nor by making it writable.
        auto *page =
            reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(frame.planes[0]) & ~uintptr_t{4095});
        if (mprotect(page, 4096, PROT_READ | PROT_WRITE) == 0)
            return 3;
        shm_reader_unlock_video(reader.get(), &frame);
        return 0;
    });
    shm_writer_params_t params = smallVideo("a");
    params.group = "video";
    Writer writer = openWriter(params);
    ASSERT_TRUE(writer);
    publishFrame(writer.get(), 1000, 5);
    struct stat status = {};
    ASSERT_EQ(stat((directory.path() + "/a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660u);
    EXPECT_EQ(status.st_gid, gid);
    other.tell();
    EXPECT_EQ(other.exitCode(), 0);
}

TEST_F(ShmRights, WhoIsNotInTheGroupIsTurnedAwayEvenIfTheSocketIsOpen)
{
    if (getgrnam("video") == nullptr)
        GTEST_SKIP() << "there is no group \"video\" here";
    Child other([](Child &self) {
        self.hear();
        if (!become(12345, 23456))
            return 9;
        shm_error_t error = {};
        const Reader reader = openReader("a", &error);
        return !reader && error.code == -EACCES ? 0 : 1;
    });
    shm_writer_params_t params = smallVideo("a");
    params.group = "video";
    Writer writer = openWriter(params);
    chmod((directory.path() + "/a").c_str(), 0666);
    other.tell();
    EXPECT_EQ(other.exitCode(), 0);
}

TEST_F(ShmRights, TheGroupAltersNothingByAnyWay)
{
    const auto gid = sharedGroup();
    if (!gid)
        GTEST_SKIP() << "there is no group \"video\" here";
    const std::string path = directory.path() + "/a";
    const pid_t writerPid = getpid();
    Child other([&](Child &self) {
        self.hear();
        if (!become(kStranger, *gid))
            return 9;
        const UniqueFd socket = connectRaw(path);
        if (!socket)
            return 1;
        const Received received = takeEverything(socket.get(), false);
        if (received.store.size() != 3 || received.slots.empty())
            return 2;
        const auto tell = [](const char *part, const std::string &way) {
            if (!way.empty())
                std::fprintf(stderr, "%s can be altered by %s\n", part, way.c_str());
            return way.empty();
        };
        bool safe = tell("the index", wayToAlter(received.store[0].get(), received.layout.indexBytes)) &&
                    tell("the audio", wayToAlter(received.store[2].get(), received.layout.audioBytes));
        for (const UniqueFd &slot : received.slots)
            safe = safe && tell("a frame", wayToAlter(slot.get(), received.layout.slotBytes));
        if (!safe)
            return 3;
        // Nor through the writer's process.
        char byte = 0;
        iovec local = {&byte, 1};
        iovec remote = {&byte, 1};
        if (process_vm_writev(writerPid, &local, 1, &remote, 1, 0) >= 0 ||
            ptrace(PTRACE_ATTACH, writerPid, nullptr, nullptr) == 0 ||
            UniqueFd(open(("/proc/" + std::to_string(writerPid) + "/mem").c_str(), O_RDWR | O_CLOEXEC)))
            return 4;
        return 0;
    });
    const Writer writer = openWriter(sharedStore());
    ASSERT_TRUE(writer);
    other.tell();
    EXPECT_EQ(other.exitCode(), 0);
}

// What the test above looks for is there to be found: the store's own user may write frames.
TEST_F(ShmRights, TheOwnUserFindsAWayIntoFramesOfAnUnsealedStoreAndNoOther)
{
    const Writer writer = openWriter(sharedStore());
    const UniqueFd socket = connectRaw(directory.path() + "/a");
    ASSERT_TRUE(socket);
    const Received received = takeEverything(socket.get(), false);
    ASSERT_EQ(received.store.size(), 3u);
    ASSERT_FALSE(received.slots.empty());
    EXPECT_EQ(wayToAlter(received.slots[0].get(), received.layout.slotBytes), "mapping it writable");
}

// Exports memory as a second descriptor of itself; nothing here imports it.
class FakeExport final : public DmabufDevice
{
public:
    int exportMemfd(int memfd, uint64_t, UniqueFd *dmabuf) override
    {
        dmabuf->reset(fcntl(memfd, F_DUPFD_CLOEXEC, 0));
        return 0;
    }
    int allocate(const char *, uint64_t, UniqueFd *) override { return -ENOMEM; }
    bool isIdle(int) override { return true; }
    void beginWrite(int) override {}
    void endWrite(int) override {}
    void takeDeviceWrites(int) override {}
};

TEST_F(ShmRights, DmabufsOfOtherUsersNeedThePublishersLeave)
{
    const auto gid = sharedGroup();
    if (!gid)
        GTEST_SKIP() << "there is no group \"video\" here";
    const std::string path = directory.path() + "/a";
    for (const bool allowed : {false, true}) {
        Child other([&](Child &self) {
            self.hear();
            if (!become(kStranger, *gid))
                return 9;
            const UniqueFd socket = connectRaw(path);
            const Received received = takeEverything(socket.get(), true);
            if (allowed)
                return !received.dmabufs.empty() && std::strcmp(received.layout.dmabuf, "yes") == 0 ? 0 : 1;
            // Whoever asks all the same is hung up on.
            return received.dmabufs.empty() && received.hungUp &&
                           std::strncmp(received.layout.dmabuf, "no: the publisher", 17) == 0
                       ? 0
                       : 2;
        });
        FakeExport device;
        const SystemClock clock;
        shm_writer_params_t params = sharedStore();
        params.memory = "udmabuf";
        params.flags = allowed ? uint32_t{SHM_WRITER_DMABUF_OTHERS} : 0u;
        shm_writer_t *opened = nullptr;
        shm_error_t error = {};
        ASSERT_EQ(0, shm::openWriter(&params, clock, &opened, &error, device)) << error.message;
        const Writer writer(opened);
        other.tell();
        EXPECT_EQ(other.exitCode(), 0) << "allowed: " << allowed;
    }
}

// The socket's file says who made it; somebody else who answers has been put there.
TEST_F(ShmRights, ASocketThatAnotherUserServesIsRefused)
{
    const std::string path = directory.path() + "/a";
    chmod(directory.path().c_str(), 0777);
    Child impostor([&](Child &self) {
        if (!become(kStranger, kStrangersGroup))
            return 9;
        const UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(fd.get(), 8) != 0)
            return 1;
        self.tell();
        self.hear();
        return 0;
    });
    ASSERT_EQ(impostor.hear(), 'x');
    ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
    shm_error_t error = {};
    EXPECT_FALSE(openReader("a", &error));
    EXPECT_EQ(error.code, -EACCES) << error.message;
    EXPECT_NE(std::string(error.message).find("not the user who owns it"), std::string::npos)
        << error.message;
}

// In a directory that all may write and where none may remove what others put there.
TEST_F(ShmRights, ANameThatAnotherUserHoldsIsRefusedAndNotTaken)
{
    chmod(directory.path().c_str(), 01777);
    const std::string path = directory.path() + "/a";
    Child squatter([&](Child &self) {
        if (!become(kStranger, kStrangersGroup))
            return 9;
        const Writer writer = openWriter(smallVideo("a"));
        self.tell(writer ? 'x' : '!');
        self.hear();
        return 0;
    });
    ASSERT_EQ(squatter.hear(), 'x');
    struct stat before = {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    Child honest([&](Child &) {
        if (!become(kStranger + 1, kStrangersGroup))
            return 9;
        shm_error_t error = {};
        const Writer writer = openWriter(smallVideo("a"), &error);
        const std::string message = error.message;
        // Named, with what to do.
        if (writer || error.code >= 0 || message.find(path.substr(0, path.size() - 1)) == std::string::npos)
            return 1;
        // And no reader of this user gets in there.
        const Reader reader = openReader("a", &error);
        return !reader && error.code == -EACCES ? 0 : 2;
    });
    EXPECT_EQ(honest.exitCode(), 0);
    struct stat after = {};
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(after.st_uid, kStranger);
}

// A lock file that is a link would be created, or locked, wherever it points to.
TEST_F(ShmRights, ALockFileThatIsALinkIsNotFollowed)
{
    const std::string target = directory.path() + "/target";
    ASSERT_EQ(symlink(target.c_str(), (directory.path() + "/.a.lock").c_str()), 0);
    shm_error_t error = {};
    EXPECT_FALSE(openWriter(smallVideo("a"), &error));
    EXPECT_NE(std::string(error.message).find(".a.lock"), std::string::npos) << error.message;
    EXPECT_FALSE(std::filesystem::exists(target));
}

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
