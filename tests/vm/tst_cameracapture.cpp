// Capture from the kernel's virtual camera, in both flavours of its API, into EGL images of a real EGL.
#include "camerafixture.h"

#include <zevmm/v4l2/cameras.h>

#include <QtTest/QtTest>

#include <algorithm>

namespace {

const int tolerance = 3;

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
    void drawnGreys_data();
    void drawnGreys();

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
            if (row > 0 && &setting != settings + 1)
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

void tst_CameraCapture::drawnGreys_data()
{
    QTest::addColumn<int>("row");
    QTest::addColumn<QByteArray>("range");
    QTest::newRow("narrow") << 0 << QByteArray("Limited Range");
    QTest::newRow("full") << 0 << QByteArray("Full Range");
    QTest::newRow("full, a descriptor each") << 2 << QByteArray("Full Range");
}

// Saturated bars are the same when full range is taken for narrow: what is too much is cut off. Greys are
// not.
void tst_CameraCapture::drawnGreys()
{
    QFETCH(int, row);
    QFETCH(QByteArray, range);
    QVERIFY2(rig->useCamera(row), rig->camera.error().constData());
    QVERIFY2(rig->camera.showBars("sRGB", "Default", range) && rig->camera.set("Test Pattern", "Gray Ramp"),
             rig->camera.error().constData());
    rig->begin();
    const QImage drawn = rig->draw(rig->next());
    QCOMPARE(drawn.size(), CameraFixture::size);
    for (int x = 0; x < drawn.width(); ++x) {
        const int level = 256 * x / drawn.width();
        const QRgb shown = drawn.pixel(x, drawn.height() / 2);
        const int difference =
            std::max({qAbs(level - qRed(shown)), qAbs(level - qGreen(shown)), qAbs(level - qBlue(shown))});
        QVERIFY2(difference <= tolerance,
                 qPrintable(
                     QStringLiteral("at %1: %2 instead of %3").arg(x).arg(QColor(shown).name()).arg(level)));
    }
}

QTEST_MAIN(tst_CameraCapture)
#include "tst_cameracapture.moc"
