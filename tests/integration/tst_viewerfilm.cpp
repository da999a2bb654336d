// The whole road of a real file: encoded, published, viewed, and compared with what FFmpeg makes of it by
// itself.

#include "stallwatch.h"
#include "toolpublisher.h"
#include "viewerrig.h"
#include "zevshm_media.h"

#include <gtest/gtest.h>

#include <QCoreApplication>

#include <cmath>
#include <cstdio>
#include <tuple>

namespace {

// Mean absolute difference over the whole picture, for each of red, green and blue.
driver::Means differences(const QImage &picture, const std::vector<uint8_t> &rgb)
{
    driver::Means sum{0, 0, 0};
    const uint8_t *wanted = rgb.data();
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x, wanted += 3) {
            const QRgb seen = picture.pixel(x, y);
            sum.r += std::abs(qRed(seen) - wanted[0]);
            sum.g += std::abs(qGreen(seen) - wanted[1]);
            sum.b += std::abs(qBlue(seen) - wanted[2]);
        }
    }
    const double count = double(picture.width()) * picture.height();
    return {sum.r / count, sum.g / count, sum.b / count};
}

constexpr double intervalMs = 80;

struct Film
{
    zevshm::Matrix matrix;
    bool limitedRange;
    const char *format; // of the store
};

class ViewerFilm : public testing::TestWithParam<Film>
{
protected:
    QString file(const QString &name) const { return directory.filePath(name); }

    const QTemporaryDir directory;
};

} // namespace

TEST_P(ViewerFilm, isShownWithoutAGapAndInItsColors)
{
    driver::MediaPlan plan;
    std::tie(plan.width, plan.height) = std::pair(640, 360);
    std::tie(plan.rate, plan.rateDenominator) = std::pair(25, 2);
    plan.frames = 25;
    plan.kind = zevshm::PatternKind::Bars;
    plan.matrix = GetParam().matrix;
    plan.limitedRange = GetParam().limitedRange;
    const QString film = file("film.mkv");
    ASSERT_TRUE(driver::writeMedia(film.toStdString(), plan));

    const ToolPublisher tool(directory.path(), "cam0", {film, "--loop", "--format", GetParam().format});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    // A machine that is busy with other things may be late with a tick or a frame, and then one is skipped;
    // what a program gets wrong it gets wrong every time, and on a machine that did not stand still.
    QJsonObject r;
    double stalledMs = 0;
    for (int i = 0; i < 4 && r["skipped"].toInt(-1) != 0; ++i) {
        StallWatch stalls;
        ViewerRun run({directory.path(), {}, false},
                      {"shm:///cam0", "--headless", "--seconds", "4", "--audio-device", "none", "--report",
                       file("r.json"), "--snapshot", file("s.png")});
        EXPECT_EQ(run.wait(), 0);
        EXPECT_EQ(run.errors().toStdString(), "");
        r = readJson(file("r.json"));
        stalledMs = stalls.totalMs(0, 1e18, intervalMs / 4);
        std::printf("%d skipped, stalls up to %.0f ms\n", r["skipped"].toInt(-1), stalls.worstMs());
    }
    EXPECT_GE(r["skipped"].toInt(-1), 0);
    EXPECT_LE(r["skipped"].toInt(-1), int(std::ceil(stalledMs / intervalMs)));
    EXPECT_EQ(r["invalid"].toInt(-1), 0);
    EXPECT_EQ(r["idle_events"].toInt(-1), 0);
    EXPECT_EQ(r["no_signal_frames"].toInt(-1), 0);
    EXPECT_EQ(r["source_interval_us"].toInt(), 80000);
    EXPECT_DOUBLE_EQ(r["tick_fps"].toDouble(), 12.5);
    EXPECT_GT(r["distinct"].toInt(), 30); // of 50; the loop's seam, after two seconds, is no gap
    EXPECT_EQ(r["pixel_format"].toString().toStdString(), GetParam().format);
    EXPECT_EQ(r["frame_path"].toString(), "mapped");

    const QImage snapshot(file("s.png"));
    ASSERT_EQ(snapshot.size(), QSize(plan.width, plan.height));
    const driver::Means off =
        differences(snapshot, driver::decodeFirstFrame(film.toStdString(), plan.matrix));
    EXPECT_LE(off.r, 2.0);
    EXPECT_LE(off.g, 2.0);
    EXPECT_LE(off.b, 2.0);
    std::printf("off by %.2f, %.2f, %.2f of 255\n", off.r, off.g, off.b);
    snapshot.save(artifact(QStringLiteral("film-%1.png").arg(GetParam().format)));
}

INSTANTIATE_TEST_SUITE_P(Films, ViewerFilm,
                         testing::Values(Film{zevshm::Matrix::Bt709, true, "yuv420p"},
                                         Film{zevshm::Matrix::Bt601, false, "nv12"}));

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
