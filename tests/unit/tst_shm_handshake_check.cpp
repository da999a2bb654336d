// A reader takes a right welcome, and none with anything wrong in it.
#include "handshake_check.h"
#include "layout.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

using namespace shm;

namespace {

WelcomeMessage rightWelcome()
{
    WelcomeMessage message = {};
    message.header = {kProtocolMagic, kProtocolVersion, kWelcome, sizeof message};
    message.session = 42;
    const FrameLayout layout = frameLayout(640, 480, SHM_PIXEL_FORMAT_YUV420P);
    for (uint32_t p = 0; p < 3; ++p) {
        message.offsets[p] = layout.planes[p].offset;
        message.strides[p] = layout.planes[p].stride;
    }
    message.planeCount = 3;
    message.slotBytes = layout.bytes;
    message.width = 640;
    message.height = 480;
    message.pixelFormat = SHM_PIXEL_FORMAT_YUV420P;
    message.historyFrames = 10;
    message.historyRing = historyRing(10);
    message.slotCapacity = 36;
    message.memoryKind = kMemfd;
    message.indexBytes = indexLayout(36, message.historyRing).bytes;
    message.rateNumerator = 25;
    message.rateDenominator = 1;
    message.sampleRate = 48000;
    message.channels = 2;
    message.audioStreams = 1;
    message.audioHistory = 96000;
    message.audioCapacity = audioCapacity(96000);
    message.audioBytes = audioLayout(message.audioCapacity, 2, 1).bytes;
    std::strcpy(message.dmabuf, "no");
    return message;
}

int check(const WelcomeMessage &message, size_t fds = 3, size_t length = sizeof(WelcomeMessage))
{
    WelcomeMessage checked;
    const char *why = nullptr;
    const int result = checkWelcome(&message, length, fds, &checked, &why);
    EXPECT_EQ(result != 0, why != nullptr);
    return result;
}

TEST(ShmWelcome, IsTakenWhenRight)
{
    EXPECT_EQ(check(rightWelcome()), 0);
}

TEST(ShmWelcome, IsRefusedWithAnyFieldWrong)
{
    using M = WelcomeMessage;
    const std::vector<std::pair<const char *, std::function<void(M &)>>> faults = {
        {"magic", [](M &m) { m.header.magic ^= 1; }},
        {"version", [](M &m) { ++m.header.version; }},
        {"type", [](M &m) { m.header.type = kSlots; }},
        {"length", [](M &m) { --m.header.length; }},
        {"session", [](M &m) { m.session = 0; }},
        {"index too small", [](M &m) { m.indexBytes -= 4096; }},
        {"index too large", [](M &m) { m.indexBytes += 4096; }},
        {"index huge", [](M &m) { m.indexBytes = UINT64_MAX; }},
        {"slot 0", [](M &m) { m.slotBytes = 0; }},
        {"slot too small", [](M &m) { m.slotBytes -= 4096; }},
        {"slot uneven", [](M &m) { m.slotBytes += 1; }},
        {"slot huge", [](M &m) { m.slotBytes = uint64_t{1} << 40; }},
        {"offset beyond", [](M &m) { m.offsets[2] = m.slotBytes; }},
        {"offset wraps", [](M &m) { m.offsets[2] = UINT64_MAX - 100; }},
        {"planes overlap", [](M &m) { m.offsets[1] = m.offsets[0] + 100; }},
        {"planes the same", [](M &m) { m.offsets[2] = m.offsets[1]; }},
        {"plane 3 described", [](M &m) { m.offsets[3] = 4096; }},
        {"plane 3 stride", [](M &m) { m.strides[3] = 256; }},
        {"stride too small", [](M &m) { m.strides[0] = 639; }},
        {"stride 0", [](M &m) { m.strides[1] = 0; }},
        {"stride huge", [](M &m) { m.strides[0] = UINT32_MAX; }},
        {"stride does not fit", [](M &m) { m.strides[2] = 4096; }},
        {"planes 2", [](M &m) { m.planeCount = 2; }},
        {"planes 5", [](M &m) { m.planeCount = 5; }},
        {"width 0", [](M &m) { m.width = 0; }},
        {"width huge", [](M &m) { m.width = UINT32_MAX; }},
        {"width larger", [](M &m) { m.width = 2000; }},
        {"height 0", [](M &m) { m.height = 0; }},
        {"height larger", [](M &m) { m.height = 1000; }},
        {"format 4", [](M &m) { m.pixelFormat = 4; }},
        {"format none", [](M &m) { m.pixelFormat = 0; }},
        {"format nv12", [](M &m) { m.pixelFormat = 3; }},
        {"history 0", [](M &m) { m.historyFrames = 0; }},
        {"history 201", [](M &m) { m.historyFrames = 201; }},
        {"history and ring", [](M &m) { m.historyFrames = 30; }},
        {"ring no power", [](M &m) { m.historyRing = 33; }},
        {"ring 0", [](M &m) { m.historyRing = 0; }},
        {"slots too few", [](M &m) { m.slotCapacity = 10; }},
        {"slots too many", [](M &m) { m.slotCapacity = 513; }},
        {"slots and index", [](M &m) { m.slotCapacity = 512; }},
        {"kind 0", [](M &m) { m.memoryKind = 0; }},
        {"kind 9", [](M &m) { m.memoryKind = 9; }},
        {"flag", [](M &m) { m.flags = 0x80; }},
        {"half a rate", [](M &m) { m.rateDenominator = 0; }},
        {"rate of audio 0", [](M &m) { m.sampleRate = 0; }},
        {"rate of audio huge", [](M &m) { m.sampleRate = 768001; }},
        {"channels 0", [](M &m) { m.channels = 0; }},
        {"channels 9", [](M &m) { m.channels = 9; }},
        {"channels and bytes", [](M &m) { m.channels = 8; }},
        {"streams 0", [](M &m) { m.audioStreams = 0; }},
        {"streams 9", [](M &m) { m.audioStreams = 9; }},
        {"streams and bytes", [](M &m) { m.audioStreams = 2; }},
        {"capacity 0", [](M &m) { m.audioCapacity = 0; }},
        {"capacity huge", [](M &m) { m.audioCapacity = UINT32_MAX; }},
        {"history beyond capacity", [](M &m) { m.audioHistory = m.audioCapacity; }},
        {"no audio history", [](M &m) { m.audioHistory = 0; }},
        {"audio bytes", [](M &m) { m.audioBytes += 4096; }}};
    for (const auto &[name, fault] : faults) {
        WelcomeMessage message = rightWelcome();
        fault(message);
        EXPECT_LT(check(message), 0) << name;
    }
    WelcomeMessage other = rightWelcome();
    ++other.header.version;
    EXPECT_EQ(check(other), -EPROTONOSUPPORT);
}

TEST(ShmWelcome, NeedsItsDescriptorsAndItsLength)
{
    for (const size_t fds : {0, 1, 2, 4})
        EXPECT_LT(check(rightWelcome(), fds), 0);
    for (size_t length = 0; length < sizeof(WelcomeMessage); ++length)
        EXPECT_LT(check(rightWelcome(), 3, length), 0);
}

TEST(ShmWelcome, OneMediumIsEnough)
{
    WelcomeMessage silent = rightWelcome();
    silent.audioStreams = silent.channels = silent.sampleRate = silent.audioCapacity = silent.audioHistory =
        0;
    silent.audioBytes = 0;
    EXPECT_EQ(check(silent, 2), 0);
    EXPECT_LT(check(silent, 3), 0);

    WelcomeMessage blind = rightWelcome();
    blind.pixelFormat = blind.width = blind.height = blind.planeCount = 0;
    blind.slotCapacity = blind.historyFrames = blind.historyRing = 0;
    blind.slotBytes = 0;
    std::memset(blind.offsets, 0, sizeof blind.offsets);
    std::memset(blind.strides, 0, sizeof blind.strides);
    blind.indexBytes = indexLayout(0, 0).bytes;
    EXPECT_EQ(check(blind), 0);
    blind.audioStreams = 0;
    EXPECT_LT(check(blind), 0);
}

TEST(ShmWelcome, TextsAreEndedAndHarmless)
{
    WelcomeMessage message = rightWelcome();
    std::memset(message.dmabuf, 0x1b, sizeof message.dmabuf);
    WelcomeMessage checked;
    const char *why = nullptr;
    ASSERT_EQ(checkWelcome(&message, sizeof message, 3, &checked, &why), 0);
    EXPECT_EQ(std::string(checked.dmabuf), std::string(127, '?'));
}

TEST(ShmWelcome, RandomBytesAreRefusedOrSound)
{
    std::mt19937_64 random(7);
    int taken = 0;
    for (int i = 0; i < 200000; ++i) {
        WelcomeMessage message = rightWelcome();
        auto *bytes = reinterpret_cast<uint8_t *>(&message);
        for (uint64_t n = random() % 4 + 1; n > 0; --n)
            bytes[random() % sizeof message] = static_cast<uint8_t>(random());
        WelcomeMessage checked;
        const char *why = nullptr;
        if (checkWelcome(&message, sizeof message, 3, &checked, &why) != 0)
            continue;
        ++taken;
        const FrameLayout geometry = frameGeometry(checked.width, checked.height, checked.pixelFormat);
        for (uint32_t p = 0; p < checked.planeCount; ++p) {
            uint64_t end = 0;
            ASSERT_FALSE(__builtin_add_overflow(
                checked.offsets[p], uint64_t{checked.strides[p]} * geometry.planes[p].rows, &end));
            ASSERT_LE(end, checked.slotBytes);
        }
        ASSERT_GE(checked.indexBytes, indexLayout(checked.slotCapacity, checked.historyRing).bytes);
    }
    EXPECT_GT(taken, 0); // bytes that carry nothing
}

TEST(ShmSlots, AreCheckedOneByOne)
{
    SlotsMessage message = {};
    message.header = {kProtocolMagic, kProtocolVersion, kSlots, sizeof message};
    message.count = 2;
    message.entries[0] = {3, 1};
    message.entries[1] = {5, 0};
    SlotsMessage checked;
    const char *why = nullptr;
    const auto result = [&](const SlotsMessage &m, size_t fds) {
        return checkSlots(&m, sizeof m, fds, 6, &checked, &why);
    };
    EXPECT_EQ(result(message, 1), 0);
    EXPECT_LT(result(message, 0), 0);
    EXPECT_LT(result(message, 2), 0);
    EXPECT_LT(checkSlots(&message, sizeof message - 1, 1, 6, &checked, &why), 0);
    SlotsMessage wrong = message;
    wrong.entries[0].slot = 6;
    EXPECT_LT(result(wrong, 1), 0);
    wrong = message;
    wrong.entries[1].slot = 3;
    EXPECT_LT(result(wrong, 1), 0);
    wrong = message;
    wrong.count = 0;
    EXPECT_LT(result(wrong, 0), 0);
    wrong.count = kSlotsPerMessage + 1;
    EXPECT_LT(result(wrong, 1), 0);
    wrong = message;
    wrong.header.version = kProtocolVersion + 1;
    EXPECT_LT(result(wrong, 1), 0);
    wrong = message;
    wrong.header.type = kWelcome;
    EXPECT_LT(result(wrong, 1), 0);
}

TEST(ShmRefused, TextIsEndedAndTheCodeIsAnError)
{
    RefusedMessage message = {};
    std::memset(message.text, 'x', sizeof message.text);
    message.code = -5;
    RefusedMessage checked;
    checkRefused(&message, sizeof message, &checked);
    EXPECT_EQ(checked.code, EPROTO);
    EXPECT_EQ(std::strlen(checked.text), sizeof message.text - 1);
    checkRefused(&message, 3, &checked);
    EXPECT_EQ(checked.text[0], '\0');
}

} // namespace
