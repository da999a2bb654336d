// A camera as a store for many readers: real processes on the kernel's virtual camera.
#include "virtualcamera.h"

#include <shm/shm_reader.h>

#include <QtCore/QProcess>
#include <QtCore/QSize>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <linux/videodev2.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

const int limitMs = 60000;
const int tolerance = 3;
const QSize size(320, 180);
const char store[] = "camera";

/*! A process that reads the store and writes a dot for every frame; it ends when its standard output does. */
int read()
{
    shm_reader_t *reader = nullptr;
    for (int64_t last = 0;;) {
        if (!reader || !shm_reader_is_ready(reader)) {
            shm_reader_close(reader);
            reader = shm_reader_open(store, 1000);
        }
        shm_video_frame_t frame = {};
        if (reader && shm_reader_lock_video(reader, &frame, SHM_VIDEO_NEWEST) == 0 &&
            frame.timestamp != last) {
            last = frame.timestamp;
            if (::write(STDOUT_FILENO, ".", 1) != 1)
                return 0;
        }
        if (frame.planes[0])
            shm_reader_unlock_video(reader, &frame);
        ::usleep(5000);
    }
}

/*! The reader's dots so far. */
class Reader
{
public:
    Reader() { process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("read")}); }
    ~Reader() { kill(); }
    void kill()
    {
        process.kill(); // SIGKILL
        process.waitForFinished();
    }
    bool waitForFrames(int count)
    {
        const int before = frames();
        return QTest::qWaitFor([&] { return frames() >= before + count; }, limitMs);
    }

private:
    int frames()
    {
        text += process.readAllStandardOutput();
        return text.size();
    }

    QProcess process;
    QByteArray text;
};

} // namespace

class tst_CameraPublish : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void pixelsAndColors_data();
    void pixelsAndColors();
    void outlivesItsReadersAndItsCamera();
    void saysWhatIsWrong_data();
    void saysWhatIsWrong();

private:
    void publish();
    QByteArray said();
    static QByteArray sayingOf(const QString &input, int *exitCode);

    QTemporaryDir folder{QStringLiteral("/run/tst-XXXXXX")};
    VirtualCamera camera;
    QProcess publisher;
    QByteArray saidText;
};

void tst_CameraPublish::init()
{
    QVERIFY(folder.isValid());
    qputenv("ZEV_SHM_DIR", folder.path().toUtf8());
    QCOMPARE(VirtualCamera::all(false).size(), 1);
    camera = VirtualCamera::all(false).first();
    QVERIFY2(camera.showBars("sRGB", "Default", "Default") && camera.setFormat(size, V4L2_PIX_FMT_YUYV) &&
                 camera.setRate(25),
             camera.error().constData());
    saidText.clear();
}

void tst_CameraPublish::cleanup()
{
    if (publisher.state() == QProcess::NotRunning)
        return;
    publisher.terminate();
    QVERIFY(publisher.waitForFinished(limitMs));
    QCOMPARE(publisher.exitStatus(), QProcess::NormalExit);
    QCOMPARE(publisher.exitCode(), 0);
}

void tst_CameraPublish::publish()
{
    publisher.setProcessChannelMode(QProcess::MergedChannels);
    publisher.start(QStringLiteral(ZEVSHM_PROGRAM),
                    {QStringLiteral("publish"), QString::fromLatin1(store),
                     QStringLiteral("v4l2:") + QString::fromLatin1(camera.device())});
    QVERIFY(publisher.waitForStarted());
}

QByteArray tst_CameraPublish::said()
{
    return saidText += publisher.readAllStandardOutput();
}

void tst_CameraPublish::pixelsAndColors_data()
{
    QTest::addColumn<QByteArray>("encoding");
    QTest::addColumn<QByteArray>("range");
    QTest::addColumn<int>("matrix");
    QTest::newRow("as a webcam: 601, narrow")
        << QByteArray("Default") << QByteArray("Default") << int(SHM_MATRIX_BT601);
    QTest::newRow("709, full") << QByteArray("Rec. 709") << QByteArray("Full Range") << int(SHM_MATRIX_BT709);
}

// The matrix is the driver's, not what the size would suggest; samples are full range.
void tst_CameraPublish::pixelsAndColors()
{
    QFETCH(QByteArray, encoding);
    QFETCH(QByteArray, range);
    QFETCH(int, matrix);
    QVERIFY2(camera.showBars("sRGB", encoding, range), camera.error().constData());
    publish();
    std::unique_ptr<shm_reader_t, void (*)(shm_reader_t *)> reader(nullptr, shm_reader_close);
    shm_video_frame_t frame = {};
    QVERIFY(QTest::qWaitFor(
        [&] {
            if (!reader)
                reader.reset(shm_reader_open(store, 100));
            return reader && shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST) == 0;
        },
        limitMs));
    QCOMPARE(frame.width, size.width());
    QCOMPARE(frame.height, size.height());
    QCOMPARE(int(frame.matrix), matrix);
    QCOMPARE(int(frame.range), int(SHM_RANGE_FULL));
    QVERIFY(QTest::qWaitFor([this] { return said().contains("one copy"); }, limitMs));

    const double red = matrix == SHM_MATRIX_BT709 ? 0.2126 : 0.299;
    const double blue = matrix == SHM_MATRIX_BT709 ? 0.0722 : 0.114;
    const int bars[] = {0xffffff, 0xffff00, 0x00ffff, 0x00ff00, 0xff00ff, 0xff0000, 0x0000ff, 0x000000};
    for (int bar = 0; bar < 8; ++bar) {
        const double r = bars[bar] >> 16 & 1, g = bars[bar] >> 8 & 1, b = bars[bar] & 1;
        const double luma = red * r + (1 - red - blue) * g + blue * b;
        const double expected[] = {255 * luma, 128 + 255 * (b - luma) / (2 * (1 - blue)),
                                   128 + 255 * (r - luma) / (2 * (1 - red))};
        const int x = (2 * bar + 1) * size.width() / 16, y = size.height() / 2;
        const int seen[] = {frame.planes[0][y * frame.strides[0] + x],
                            frame.planes[1][y / 2 * frame.strides[1] + x / 2],
                            frame.planes[2][y / 2 * frame.strides[2] + x / 2]};
        for (int plane = 0; plane < 3; ++plane)
            QVERIFY2(qAbs(seen[plane] - qBound(0.0, expected[plane], 255.0)) <= tolerance,
                     qPrintable(QStringLiteral("bar %1, plane %2: %3 instead of %4")
                                    .arg(bar)
                                    .arg(plane)
                                    .arg(seen[plane])
                                    .arg(expected[plane])));
    }
    shm_reader_unlock_video(reader.get(), &frame);
}

// A program of this size takes long to start when emulated: one publisher for all that can go wrong beside
// it.
void tst_CameraPublish::outlivesItsReadersAndItsCamera()
{
    publish();
    Reader first, second;
    QVERIFY(first.waitForFrames(5));
    QVERIFY(second.waitForFrames(5));
    first.kill();
    QVERIFY(second.waitForFrames(30));
    QCOMPARE(publisher.state(), QProcess::Running);
    // And whoever comes later.
    Reader third;
    QVERIFY(third.waitForFrames(5));
    QVERIFY(second.waitForFrames(5));

    int exitCode = 0;
    QCOMPARE(sayingOf(QString::fromLatin1("v4l2:" + camera.device()), &exitCode),
             "zevshm: " + camera.device() +
                 ": cannot be opened (Device or resource busy); end the program that uses it: 'fuser -v " +
                 camera.device() + "' names it\n");
    QCOMPARE(exitCode, 8);
    QVERIFY(second.waitForFrames(5));

    QVERIFY2(camera.set("Disconnect", 1), camera.error().constData());
    QVERIFY(QTest::qWaitFor([this] { return said().contains("connected again"); }, limitMs));
    QVERIFY(second.waitForFrames(10));
}

QByteArray tst_CameraPublish::sayingOf(const QString &input, int *exitCode)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral(ZEVSHM_PROGRAM),
                  {QStringLiteral("publish"), QStringLiteral("other"), input});
    process.waitForFinished(limitMs);
    *exitCode = process.exitCode();
    return process.readAllStandardOutput();
}

void tst_CameraPublish::saysWhatIsWrong_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("missing") << QStringLiteral("v4l2:/dev/video63") << 8
                             << QByteArray(
                                    "zevshm: /dev/video63: cannot be opened (No such file or directory); "
                                    "connect the camera, or name one that 'v4l2-ctl --list-devices' lists\n");
    QTest::newRow("no device") << QStringLiteral("v4l2:") << 2
                               << QByteArray(
                                      "zevshm: publish: 'v4l2:' names no device; give v4l2:/dev/video0\n");
    QTest::newRow("no camera") << QStringLiteral("v4l2:/dev/null") << 8
                               << QByteArray(
                                      "zevshm: /dev/null: is no capture device; name one that 'v4l2-ctl "
                                      "--list-devices' lists\n");
    const QByteArray other = VirtualCamera::all(true).first().device();
    QTest::newRow("multi-planar")
        << QString::fromLatin1("v4l2:" + other) << 8
        << "zevshm: " + other +
               ": has the multi-planar interface only, which cannot be published; show it "
               "directly, as v4l://" +
               other + "\n";
}

void tst_CameraPublish::saysWhatIsWrong()
{
    QFETCH(QString, input);
    QFETCH(int, code);
    QFETCH(QByteArray, text);
    int exitCode = 0;
    QCOMPARE(sayingOf(input, &exitCode), text);
    QCOMPARE(exitCode, code);
}

int main(int argc, char **argv)
{
    if (argc == 2 && std::strcmp(argv[1], "read") == 0) {
        signal(SIGPIPE, SIG_IGN);
        return read();
    }
    QCoreApplication application(argc, argv);
    tst_CameraPublish test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_camerapublish.moc"
