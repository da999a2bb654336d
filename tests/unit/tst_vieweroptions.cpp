#include "../remedies.h"
#include "options.h"

#include <gtest/gtest.h>

namespace {

ParsedOptions parse(const char *line)
{
    return parseOptions(QString::fromUtf8(line).split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

TEST(ViewerOptions, aUrlIsEnough)
{
    const ParsedOptions p = parse("shm:///cam0");
    EXPECT_TRUE(p.error.isEmpty()) << p.error.toStdString();
    EXPECT_EQ(p.options.video, QUrl("shm:///cam0"));
    EXPECT_TRUE(p.options.audio.isEmpty());
    EXPECT_EQ(p.options.frames, Options::Frames::Video);
    EXPECT_EQ(p.options.framePath, Options::FramePath::Auto);
    EXPECT_EQ(p.options.fps, 0.0);
    EXPECT_EQ(p.options.seconds, 0.0);
    EXPECT_FALSE(p.options.headless);
}

TEST(ViewerOptions, everyOptionIsTaken)
{
    const ParsedOptions p = parse(
        "shm:///cam0 --audio shm:///mic --frames image --fps 12.5 --no-signal a.png --headless --seconds 2.5 "
        "--snapshot s.png --report r.json --fill crop --size 640x360 --stats --fullscreen --block 1,10");
    ASSERT_TRUE(p.error.isEmpty()) << p.error.toStdString();
    EXPECT_EQ(p.options.audio, QUrl("shm:///mic"));
    EXPECT_EQ(p.options.frames, Options::Frames::Image);
    EXPECT_EQ(p.options.fps, 12.5);
    EXPECT_EQ(p.options.noSignal, "a.png");
    EXPECT_TRUE(p.options.headless);
    EXPECT_EQ(p.options.seconds, 2.5);
    EXPECT_EQ(p.options.snapshot, "s.png");
    EXPECT_EQ(p.options.report, "r.json");
    EXPECT_EQ(p.options.fill, Options::Fill::Crop);
    EXPECT_EQ(p.options.windowSize, QSize(640, 360));
    EXPECT_TRUE(p.options.statistics);
    EXPECT_TRUE(p.options.fullscreen);
    EXPECT_EQ(p.options.blockAfter, 1.0);
    EXPECT_EQ(p.options.blockFor, 10.0);
}

TEST(ViewerOptions, soundPlaysOnTheDefaultDeviceUnlessTold)
{
    const Options usual = parse("shm:///cam0").options;
    EXPECT_EQ(usual.audioDevice, "default");
    EXPECT_EQ(usual.volume, 1.0);
    EXPECT_FALSE(usual.mute);
    const ParsedOptions p = parse("shm:///cam0 --audio-device sink7 --volume 0.25 --mute");
    ASSERT_TRUE(p.error.isEmpty()) << p.error.toStdString();
    EXPECT_EQ(p.options.audioDevice, "sink7");
    EXPECT_EQ(p.options.volume, 0.25);
    EXPECT_TRUE(p.options.mute);
    EXPECT_EQ(parse("shm:///cam0 --audio-device none").options.audioDevice, "none");
}

TEST(ViewerOptions, theDeviceListNeedsNoUrl)
{
    const ParsedOptions p = parse("--list-audio-devices");
    EXPECT_TRUE(p.listAudioDevices);
    EXPECT_TRUE(p.error.isEmpty());
    EXPECT_FALSE(parse("shm:///cam0").listAudioDevices);
}

TEST(ViewerOptions, framePathsHaveNames)
{
    EXPECT_EQ(parse("shm:///cam0 --frame-path auto").options.framePath, Options::FramePath::Auto);
    EXPECT_EQ(parse("shm:///cam0 --frame-path mapped").options.framePath, Options::FramePath::Mapped);
    EXPECT_EQ(parse("shm:///cam0 --frame-path egl").options.framePath, Options::FramePath::Egl);
}

TEST(ViewerOptions, autoIsTheDefaultRate)
{
    EXPECT_EQ(parse("shm:///cam0 --fps auto").options.fps, 0.0);
}

TEST(ViewerOptions, theVersionNeedsNoUrl)
{
    EXPECT_TRUE(parse("--version").version);
    EXPECT_TRUE(parse("--version").error.isEmpty());
    EXPECT_FALSE(parse("shm:///cam0").version);
}

TEST(ViewerOptions, picturesArePngFiles)
{
    for (const char *name : {"s.png", "S.PNG", "s", "/tmp/a.dir/s"})
        EXPECT_TRUE(parse((std::string("shm:///cam0 --snapshot ") + name).c_str()).error.isEmpty()) << name;
}

TEST(ViewerOptions, helpIsAskedForInTwoWays)
{
    EXPECT_TRUE(parse("--help").help);
    EXPECT_TRUE(parse("-h").help);
    for (const char *word : {"--audio-device", "--volume", "--mute", "--list-audio-devices", "av_offset_ms",
                             "underrun_episodes", "--audio", "--frames", "--fps", "--no-signal", "--headless",
                             "--seconds", "--snapshot", "--report", "Examples:", "skipped", "Exit status"})
        EXPECT_TRUE(helpText().contains(QLatin1String(word))) << word;
}

TEST(ViewerOptions, camerasAreTakenAndListed)
{
    const ParsedOptions p = parse("v4l:///dev/video0 --audio shm:///mic --frame-path egl");
    ASSERT_TRUE(p.error.isEmpty()) << p.error.toStdString();
    EXPECT_EQ(p.options.video, QUrl("v4l:///dev/video0"));
    EXPECT_FALSE(p.listCameras);
    EXPECT_TRUE(parse("--list-cameras").listCameras);
}

struct Bad
{
    const char *line;
    const char *named;
};
class ViewerOptionsBad : public testing::TestWithParam<Bad>
{};

TEST_P(ViewerOptionsBad, isRefusedInOneLineThatNamesIt)
{
    const ParsedOptions p = parse(GetParam().line);
    EXPECT_TRUE(p.error.contains(QLatin1String(GetParam().named))) << p.error.toStdString();
    EXPECT_FALSE(p.error.contains(QLatin1Char('\n')));
    EXPECT_TRUE(namesARemedy(p.error.toStdString())) << p.error.toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ViewerOptionsBad,
    testing::Values(
        Bad{"", "URL is missing"}, Bad{"shm:///a shm:///b", "shm:///b"},
        Bad{"shm:///cam0 --nonsense", "nonsense"}, Bad{"shm:///", "names no source"},
        Bad{"shm:", "names no source"}, Bad{"shm:///a/b", "'shm:///a/b'"},
        Bad{"shm:///.hidden", "'shm:///.hidden'"}, Bad{"shm:///;2", "'shm:///;2'"},
        Bad{"shm://elsewhere/cam0", "the host 'elsewhere'"},
        Bad{"shm:///cam0 --audio shm:///a/b", "'shm:///a/b'"}, Bad{"shm:///cam0 --fps fast", "--fps fast"},
        Bad{"shm:///cam0 --fps 0", "--fps 0"}, Bad{"shm:///cam0 --fps nan", "--fps nan"},
        Bad{"shm:///cam0 --seconds -1", "--seconds -1"}, Bad{"shm:///cam0 --frames both", "video, image"},
        Bad{"shm:///cam0 --fill wide", "crop"}, Bad{"shm:///cam0 --frame-path gl", "auto, mapped, egl"},
        Bad{"shm:///cam0 --frames image --frame-path egl", "--frame-path egl"},
        Bad{"shm:///cam0 --headless --frame-path egl", "--frame-path egl does not go with --headless"},
        Bad{"shm:///cam0 --size big", "--size big"}, Bad{"shm:///cam0 --size 640x", "--size 640x"},
        Bad{"shm:///cam0 --snapshot s.jpg", "name it s.png"},
        Bad{"shm:///cam0 --snapshot s.xyz", "--snapshot s.xyz"}, Bad{"shm:///cam0 --block 3", "AFTER,FOR"},
        Bad{"shm:///cam0 --volume 1.1", "--volume 1.1"}, Bad{"shm:///cam0 --volume -0.1", "--volume -0.1"},
        Bad{"shm:///cam0 --volume loud", "--volume loud"},
        Bad{"shm:///cam0 --audio-device=", "--list-audio-devices"},
        Bad{"v4l:///dev/video0 --headless", "zevshm publish NAME v4l2:/dev/video0"},
        Bad{"v4l:///dev/video0 --frames image", "--frames image does not go with v4l:///dev/video0"},
        Bad{"v4l:///dev/video0 --frame-path mapped", "--frame-path mapped does not go with"},
        Bad{"v4l:///dev/video0 --audio v4l:///dev/video1", "--audio v4l:///dev/video1"},
        Bad{"v4l:", "names no source"}, Bad{"shm:///cam0 --audio-device", "audio-device"},
        Bad{"shm:///cam0 --report", "report"}));

} // namespace
