// Capture from the kernel's virtual camera, in both flavours of its API, into EGL images of a real EGL.
#include "camerafixture.h"

#include <zevmm/v4l2/cameras.h>

#include <QtTest/QtTest>

#include <algorithm>
#include <ctime>

namespace {

using zevmm::v4l2::CaptureStatistics;

const int tolerance = 3;

qint64 monotonicUs()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return qint64(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

} // namespace

class tst_CameraCapture : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void isListed();
    void takesNv12_data();
    void takesNv12();
    void drawnPixels_data();
    void drawnPixels();
    void aDeliveredFrameStays_data();
    void aDeliveredFrameStays();
    void deliversTheNewest_data();
    void deliversTheNewest();
    void aFrameAfterAPauseIsNew();

private:
    std::unique_ptr<CameraFixture> rig;
};

void tst_CameraCapture::initTestCase()
{
    rig = std::make_unique<CameraFixture>();
    QVERIFY2(rig->error().isEmpty(), rig->error().constData());
}

void tst_CameraCapture::cleanupTestCase()
{
    rig.reset();
}

void tst_CameraCapture::isListed()
{
    int found = 0;
    for (const zevmm::v4l2::Camera &listed : zevmm::v4l2::listCameras()) {
        if (listed.driver != "vivid")
            continue;
        ++found;
        QCOMPARE(listed.problem, std::string());
        const auto nv12 = std::find_if(listed.formats.begin(), listed.formats.end(),
                                       [](const auto &format) { return format.code == "NV12"; });
        QVERIFY(nv12 != listed.formats.end());
        const auto listedSize = std::find_if(nv12->sizes.begin(), nv12->sizes.end(), [](const auto &entry) {
            return entry.width == 320 && entry.height == 180;
        });
        QVERIFY(listedSize != nv12->sizes.end());
        QVERIFY(std::count(listedSize->rates.begin(), listedSize->rates.end(), 30.0) == 1);
    }
    QCOMPARE(found, 2);
}

void tst_CameraCapture::takesNv12_data()
{
    CameraFixture::addRows();
}

void tst_CameraCapture::takesNv12()
{
    QFETCH(int, row);
    QVERIFY2(rig->useCamera(row), rig->camera.error().constData());
    rig->capture->setup();
    const auto format = rig->capture->format();
    QCOMPARE(format.pixelFormat, CameraFixture::kind(row).expected);
    QCOMPARE(format.width, 320u);
    QCOMPARE(format.height, 180u);
    QCOMPARE(format.frameInterval, std::int64_t(33333));
    QCOMPARE(rig->capture->device(), rig->camera.device().toStdString());
    QVERIFY(!rig->capture->isFrameReady());
}

void tst_CameraCapture::drawnPixels_data()
{
    QTest::addColumn<int>("row");
    QTest::addColumn<QByteArray>("colorspace");
    QTest::addColumn<QByteArray>("encoding");
    QTest::addColumn<QByteArray>("range");
    const struct
    {
        const char *colorspace, *encoding, *range;
    } settings[] = {{"sRGB", "Default", "Default"},
                    {"sRGB", "ITU-R 601", "Full Range"},
                    {"Rec. 709", "Default", "Default"},
                    {"sRGB", "Rec. 709", "Full Range"},
                    {"sRGB", "BT.2020", "Limited Range"}};
    for (int row = 0; row < int(CameraFixture::kinds); ++row) {
        for (const auto &setting : settings) {
            if (row > 0 && &setting - settings > 1)
                continue; // the matrix is no matter of the flavour
            QTest::addRow("%s, %s, %s, %s", CameraFixture::kind(row).name, setting.colorspace,
                          setting.encoding, setting.range)
                << row << QByteArray(setting.colorspace) << QByteArray(setting.encoding)
                << QByteArray(setting.range);
        }
    }
}

void tst_CameraCapture::drawnPixels()
{
    QFETCH(int, row);
    QFETCH(QByteArray, colorspace);
    QFETCH(QByteArray, encoding);
    QFETCH(QByteArray, range);
    QVERIFY2(rig->useCamera(row), rig->camera.error().constData());
    QVERIFY2(rig->camera.showBars(colorspace, encoding, range), rig->camera.error().constData());
    rig->begin();
    const QImage drawn = rig->draw(rig->next());
    QCOMPARE(drawn.size(), CameraFixture::size);

    const QRgb bars[] = {0xffffff, 0xffff00, 0x00ffff, 0x00ff00, 0xff00ff, 0xff0000, 0x0000ff, 0x000000};
    const int width = CameraFixture::size.width() / int(std::size(bars));
    for (int y = 0; y < CameraFixture::size.height(); ++y) {
        for (int x = 0; x < CameraFixture::size.width(); ++x) {
            if (x % width < 4 || x % width >= width - 4)
                continue; // chroma of the neighbour
            const QRgb expected = bars[x / width], shown = drawn.pixel(x, y);
            const int difference =
                std::max({qAbs(qRed(expected) - qRed(shown)), qAbs(qGreen(expected) - qGreen(shown)),
                          qAbs(qBlue(expected) - qBlue(shown))});
            QVERIFY2(difference <= tolerance,
                     qPrintable(QStringLiteral("at %1,%2: %3 instead of %4")
                                    .arg(x)
                                    .arg(y)
                                    .arg(QColor(shown).name(), QColor(expected).name())));
        }
    }
}

void tst_CameraCapture::aDeliveredFrameStays_data()
{
    CameraFixture::addRows();
}

// Every frame differs from the one before, and the driver goes round its buffers many times meanwhile.
void tst_CameraCapture::aDeliveredFrameStays()
{
    QFETCH(int, row);
    QVERIFY2(rig->useCamera(row), rig->camera.error().constData());
    QVERIFY2(rig->camera.set("Horizontal Movement", "Move Left Fast"), rig->camera.error().constData());
    rig->begin();
    const auto goRound = [this] {
        const auto before = rig->capture->statistics().captured;
        return QTest::qWaitFor([&] { return rig->capture->statistics().captured > before + 14; },
                               CameraFixture::limitMs);
    };
    void *const first = rig->next();
    QVERIFY(first);
    const QImage firstDrawn = rig->draw(first);
    QVERIFY(goRound());
    QCOMPARE(rig->draw(first), firstDrawn);
    void *const second = rig->next();
    QVERIFY(second && second != first);
    const QImage secondDrawn = rig->draw(second);
    QVERIFY(goRound());
    QCOMPARE(rig->draw(first), firstDrawn);
    QCOMPARE(rig->draw(second), secondDrawn);
    QVERIFY(secondDrawn != firstDrawn);
    QVERIFY(rig->next());
    // That buffer may be written now, and is: what stayed before did not stay by chance.
    QVERIFY(QTest::qWaitFor([&] { return rig->draw(first) != firstDrawn; }, CameraFixture::limitMs));
    QCOMPARE(rig->draw(second), secondDrawn);
}

void tst_CameraCapture::deliversTheNewest_data()
{
    CameraFixture::addRows();
}

// In a virtual machine without a processor to itself a thread may have to wait: the median counts, and the
// order.
void tst_CameraCapture::deliversTheNewest()
{
    QFETCH(int, row);
    QVERIFY2(rig->useCamera(row), rig->camera.error().constData());
    // The driver would stamp a frame with the end of its interval, before which it delivers it.
    QVERIFY2(rig->camera.set("Timestamp Source", "Start of Exposure"), rig->camera.error().constData());
    rig->begin();
    QVERIFY(rig->next());
    const qint64 tick = 40000, interval = rig->capture->format().frameInterval;
    QVector<qint64> ages;
    std::uint32_t sequence = 0;
    for (int i = 0; i < 30; ++i) {
        QTest::qWait(int(tick / 1000));
        bool isDelivered = false;
        rig->capture->readFrame([&](void *) { isDelivered = true; });
        if (!isDelivered)
            continue;
        const CaptureStatistics statistics = rig->capture->statistics();
        QVERIFY(statistics.lastSequence > sequence || sequence == 0);
        sequence = statistics.lastSequence;
        QVERIFY(statistics.lastTimestamp > 0);
        ages.append(monotonicUs() - statistics.lastTimestamp);
    }
    QVERIFY(ages.size() >= 15);
    std::sort(ages.begin(), ages.end());
    qInfo("age of a frame when delivered: median %lld, most %lld us", ages[ages.size() / 2], ages.last());
    QVERIFY2(ages[ages.size() / 2] <= 2 * interval + tick,
             QByteArray::number(ages[ages.size() / 2]).constData());
}

// Nobody asked for longer than the driver has buffers: not the first of them is delivered, but the newest.
void tst_CameraCapture::aFrameAfterAPauseIsNew()
{
    QVERIFY2(rig->useCamera(0), rig->camera.error().constData());
    rig->begin();
    QVERIFY(rig->next());
    const auto before = rig->capture->statistics().captured;
    QVERIFY(QTest::qWaitFor([&] { return rig->capture->statistics().captured > before + 60; },
                            CameraFixture::limitMs));
    QVERIFY(rig->next());
    const qint64 age = monotonicUs() - rig->capture->statistics().lastTimestamp;
    QVERIFY2(age < 1000000, QByteArray::number(age).constData()); // of two seconds
}

QTEST_MAIN(tst_CameraCapture)
#include "tst_cameracapture.moc"
