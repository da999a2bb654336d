// Where a published store's frames lie, on a machine without the kernel's DMA-bufs: what is refused, and what
// is said when frames cannot be exported. What works with them is in tests/vm/tst_dmabufpublish.cpp.
#include "zevshm_driver.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

using namespace driver;

namespace {

const std::string noDevice =
    "no: this kernel has no /dev/udmabuf; load the module udmabuf or enable CONFIG_UDMABUF";

class ZevshmMemory : public testing::Test
{
protected:
    StoreDirectory stores;
};

QJsonObject infoJson(const std::string &name)
{
    const Result result = run({"info", name, "--json"});
    EXPECT_EQ(result.code, 0) << result.errors;
    return QJsonDocument::fromJson(QByteArray::fromStdString(result.output)).object();
}

Result publish(const std::vector<std::string> &options)
{
    std::vector<std::string> arguments = {"publish", "cam", "test:", "--size", "320x240"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return run(arguments);
}

} // namespace

TEST_F(ZevshmMemory, withoutTheDeviceFramesAreSharedAndTheReasonIsTold)
{
    if (access("/dev/udmabuf", F_OK) == 0)
        GTEST_SKIP() << "this machine has /dev/udmabuf";
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--memory", "udmabuf", "--clock-step",
                      "0.4,-3600000"});
    const Reader first = openStore("cam");
    ASSERT_TRUE(first) << publisher.errors();
    const uint64_t session = storeInfo(first.get()).session;
    ASSERT_TRUE(waitForFrames(first.get(), 2));
    EXPECT_TRUE(Frame(first.get()));
    // A step back opens the store anew; the reason is logged for the first alone.
    ASSERT_TRUE(waitFor([&] {
        const Reader second(shm_reader_open("cam", 1000));
        return second && storeInfo(second.get()).session != session && waitForFrames(second.get(), 2);
    })) << publisher.errors();

    const Result text = run({"info", "cam"});
    EXPECT_EQ(text.code, 0) << text.errors;
    EXPECT_NE(text.output.find("  DMA-buf   " + noDevice + "\n"), std::string::npos) << text.output;
    const QJsonObject json = infoJson("cam");
    EXPECT_EQ(json["video"].toObject()["dmabuf"].toString().toStdString(), noDevice);
    EXPECT_EQ(json["memory"].toString(), QStringLiteral("memfd"));

    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_EQ(publisher.errors(), "zevshm: frames have no DMA-buf: this kernel has no /dev/udmabuf; load the "
                                  "module udmabuf or enable CONFIG_UDMABUF\n");
}

TEST_F(ZevshmMemory, plainMemoryIsNotWorthALine)
{
    for (const std::vector<std::string> &options :
         {std::vector<std::string>{}, std::vector<std::string>{"--memory", "memfd"}}) {
        std::vector<std::string> arguments = {"publish", "cam", "test:", "--size", "320x240"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        Zevshm publisher(arguments);
        const Reader reader = openStore("cam");
        ASSERT_TRUE(reader && waitForFrames(reader.get(), 1)) << publisher.errors();
        EXPECT_EQ(infoJson("cam")["video"].toObject()["dmabuf"].toString().toStdString(),
                  "no: frames are in plain memory; publish with the memory kind udmabuf");
        publisher.signal(SIGINT);
        EXPECT_EQ(publisher.wait(), 0);
        EXPECT_EQ(publisher.errors(), "");
    }
}

TEST_F(ZevshmMemory, soundAloneHasNoFramesToExport)
{
    Zevshm publisher({"publish", "cam", "test:", "--no-video", "--memory", "udmabuf"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader) << publisher.errors();
    const Result text = run({"info", "cam"});
    EXPECT_EQ(text.code, 0) << text.errors;
    EXPECT_EQ(text.output.find("DMA-buf"), std::string::npos) << text.output;
    EXPECT_TRUE(infoJson("cam")["video"].isNull());
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_EQ(publisher.errors(), "");
}

TEST_F(ZevshmMemory, aHeapThatIsNotThereIsRefused)
{
    const Result result = publish({"--memory", "dma-heap:nosuch"});
    EXPECT_EQ(result.code, 6);
    EXPECT_EQ(result.errors, "zevshm: store \"cam\": there is no /dev/dma_heap/nosuch; choose one that is "
                             "there, or the memory kind memfd\n");
    EXPECT_FALSE(stores.hasSocket("cam"));
}

TEST_F(ZevshmMemory, aKindThatDoesNotExistIsRefused)
{
    for (const char *kind : {"bogus", "dma-heap:", "dma-heap:../shm", "UDMABUF"}) {
        const Result result = publish({"--memory", kind});
        EXPECT_EQ(result.code, 2) << kind;
        EXPECT_EQ(result.errors, "zevshm: memory kind \"" + std::string(kind) +
                                     "\" is unknown: memfd, udmabuf, dma-heap:NAME and huge exist\n");
    }
    EXPECT_FALSE(stores.hasSocket("cam"));
}

TEST_F(ZevshmMemory, aHeapsMemoryCannotBeSealed)
{
    const Result result = publish({"--memory", "dma-heap:system", "--sealed"});
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(result.errors, "zevshm: memory of a DMA heap cannot be sealed: choose the memory kind memfd\n");
}

TEST_F(ZevshmMemory, hugePagesAreUsedOrRefusedWithWhatToDo)
{
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--history", "1", "--memory", "huge"});
    Reader reader;
    ASSERT_TRUE(waitFor([&] {
        reader.reset(shm_reader_open("cam", 1000));
        return reader != nullptr || !publisher.running();
    }));
    if (reader) {
        EXPECT_STREQ(storeInfo(reader.get()).memory, "huge");
        EXPECT_EQ(infoJson("cam")["memory"].toString(), QStringLiteral("huge"));
        publisher.signal(SIGINT);
        EXPECT_EQ(publisher.wait(), 0);
        EXPECT_EQ(publisher.errors(), "");
        return;
    }
    EXPECT_EQ(publisher.wait(), 7);
    const std::string errors = publisher.errors();
    EXPECT_EQ(errors.rfind("zevshm: store \"cam\" needs ", 0), 0u) << errors;
    EXPECT_NE(errors.find(" are available: raise vm.nr_hugepages or publish without them\n"),
              std::string::npos)
        << errors;
    EXPECT_FALSE(stores.hasSocket("cam"));
}
