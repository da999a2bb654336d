// A camera as a store for many readers: real processes on the kernel's virtual camera.
#include "virtualcamera.h"

#include <shm/shm_reader.h>

#include <QtCore/QDateTime>
#include <QtCore/QFile>
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

/*! Pages of the store's frames that a process has written since its clear_refs was; -1: the kernel does not
 * tell. */
int framePagesWritten(qint64 process)
{
    const QString folder = QStringLiteral("/proc/%1/").arg(process);
    QFile maps(folder + QStringLiteral("maps")), pages(folder + QStringLiteral("pagemap"));
    if (!maps.open(QIODevice::ReadOnly) || !pages.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return -1;
    int written = 0;
    int frames = 0;
    const QList<QByteArray> lines = maps.readAll().split('\n');
    for (const QByteArray &line : lines) {
        unsigned long begin = 0, end = 0;
        if (!line.contains("memfd:shm-frame") || std::sscanf(line.constData(), "%lx-%lx", &begin, &end) != 2)
            continue;
        ++frames;
        pages.seek(qint64(begin / 4096 * 8));
        const QByteArray entries = pages.read(qint64((end - begin) / 4096 * 8));
        for (int i = 0; i + 8 <= entries.size(); i += 8) {
            quint64 entry = 0;
            std::memcpy(&entry, entries.constData() + i, sizeof entry);
            written += entry >> 55 & 1;
        }
    }
    return frames > 0 ? written : -1;
}

bool forgetPagesWritten(qint64 process)
{
    QFile file(QStringLiteral("/proc/%1/clear_refs").arg(process));
    return file.open(QIODevice::WriteOnly) && file.write("4") == 1;
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
    void straightIntoTheStore_data();
    void straightIntoTheStore();
    void outlivesItsReadersAndItsCamera();
    void saysWhatIsWrong_data();
    void saysWhatIsWrong();

private:
    void publish(const QStringList &options = {});
    void lockNewest(shm_video_frame_t *frame);
    static void compareBars(const shm_video_frame_t &frame);
    QByteArray said();
    static QByteArray sayingOf(const QString &input, int *exitCode, const QStringList &options = {});

    QTemporaryDir folder{QStringLiteral("/run/tst-XXXXXX")};
    std::unique_ptr<shm_reader_t, void (*)(shm_reader_t *)> reader{nullptr, shm_reader_close};
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
    reader.reset();
    if (publisher.state() == QProcess::NotRunning)
        return;
    publisher.terminate();
    QVERIFY(publisher.waitForFinished(limitMs));
    QCOMPARE(publisher.exitStatus(), QProcess::NormalExit);
    QCOMPARE(publisher.exitCode(), 0);
}

void tst_CameraPublish::publish(const QStringList &options)
{
    publisher.setProcessChannelMode(QProcess::MergedChannels);
    publisher.start(QStringLiteral(ZEVSHM_PROGRAM),
                    QStringList{QStringLiteral("publish"), QString::fromLatin1(store),
                                QStringLiteral("v4l2:") + QString::fromLatin1(camera.device())} +
                        options);
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
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("as a webcam: 601, narrow, in one memory that fits not")
        << QByteArray("Default") << QByteArray("Default") << int(SHM_MATRIX_BT601) << QStringList()
        << QByteArray(
               "one copy, because USERPTR: the driver puts the chroma plane at byte 92160, not 94208\n");
    QTest::newRow("709, full, by FFmpeg")
        << QByteArray("Rec. 709") << QByteArray("Full Range") << int(SHM_MATRIX_BT709)
        << QStringList{QStringLiteral("--fps"), QStringLiteral("25")}
        << QByteArray("one copy, because --fps or a fault is asked for\n");
}

// The matrix is the driver's, not what the size would suggest; samples are full range.
void tst_CameraPublish::pixelsAndColors()
{
    QFETCH(QByteArray, encoding);
    QFETCH(QByteArray, range);
    QFETCH(int, matrix);
    QFETCH(QStringList, options);
    QFETCH(QByteArray, reason);
    QVERIFY2(camera.showBars("sRGB", encoding, range), camera.error().constData());
    publish(options);
    shm_video_frame_t frame = {};
    lockNewest(&frame);
    QCOMPARE(frame.width, size.width());
    QCOMPARE(frame.height, size.height());
    QCOMPARE(int(frame.matrix), matrix);
    QCOMPARE(int(frame.range), int(SHM_RANGE_FULL));
    QVERIFY2(QTest::qWaitFor([&] { return said().contains(reason); }, limitMs), said().constData());
    compareBars(frame);
    shm_reader_unlock_video(reader.get(), &frame);
}

void tst_CameraPublish::lockNewest(shm_video_frame_t *frame)
{
    QVERIFY2(QTest::qWaitFor(
                 [&] {
                     if (reader && !shm_reader_is_ready(reader.get()))
                         reader.reset();
                     if (!reader)
                         reader.reset(shm_reader_open(store, 100));
                     return reader && shm_reader_lock_video(reader.get(), frame, SHM_VIDEO_NEWEST) == 0;
                 },
                 limitMs),
             said().constData());
}

/*! The bars as the frame says that its samples are to be read. */
void tst_CameraPublish::compareBars(const shm_video_frame_t &frame)
{
    const int matrix = frame.matrix;
    const bool isFull = frame.range == SHM_RANGE_FULL;
    const bool isPlanar = frame.planes[2] != nullptr;
    const double red = matrix == SHM_MATRIX_BT709 ? 0.2126 : 0.299;
    const double blue = matrix == SHM_MATRIX_BT709 ? 0.0722 : 0.114;
    const int bars[] = {0xffffff, 0xffff00, 0x00ffff, 0x00ff00, 0xff00ff, 0xff0000, 0x0000ff, 0x000000};
    for (int bar = 0; bar < 8; ++bar) {
        const double r = bars[bar] >> 16 & 1, g = bars[bar] >> 8 & 1, b = bars[bar] & 1;
        const double luma = red * r + (1 - red - blue) * g + blue * b;
        const double chroma = isFull ? 255 : 224;
        const double expected[] = {isFull ? 255 * luma : 16 + 219 * luma,
                                   128 + chroma * (b - luma) / (2 * (1 - blue)),
                                   128 + chroma * (r - luma) / (2 * (1 - red))};
        const int x = (2 * bar + 1) * frame.width / 16, y = frame.height / 2;
        const int row = y / 2 * frame.strides[1];
        const int seen[] = {frame.planes[0][y * frame.strides[0] + x],
                            frame.planes[1][isPlanar ? row + x / 2 : row + x / 2 * 2],
                            isPlanar ? frame.planes[2][row + x / 2] : frame.planes[1][row + x / 2 * 2 + 1]};
        for (int plane = 0; plane < 3; ++plane)
            QVERIFY2(qAbs(seen[plane] - qBound(0.0, expected[plane], 255.0)) <= tolerance,
                     qPrintable(QStringLiteral("bar %1, plane %2: %3 instead of %4")
                                    .arg(bar)
                                    .arg(plane)
                                    .arg(seen[plane])
                                    .arg(expected[plane])));
    }
}

void tst_CameraPublish::straightIntoTheStore_data()
{
    QTest::addColumn<bool>("isMultiplanar");
    QTest::addColumn<QSize>("frameSize");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("way");
    QTest::addColumn<bool>("isFull");
    // 480 lines of the store's 768 bytes end where its chroma plane begins; 180 of its 512 do not.
    const QSize fits(640, 480), fitsNot(320, 180);
    const QStringList plain = {}, udmabuf = {QStringLiteral("--memory"), QStringLiteral("udmabuf")};
    const QByteArray address = "captured straight into the store (USERPTR)";
    const QByteArray dmabuf = "captured straight into the store (DMABUF)";
    QTest::newRow("single-planar, by address") << false << fits << plain << address << false;
    QTest::newRow("single-planar, by DMA-buf") << false << fits << udmabuf << dmabuf << true;
    QTest::newRow("multi-planar, by address, as two DMA-bufs are wanted")
        << true << fitsNot << udmabuf
        << QByteArray("(USERPTR), not DMABUF: the driver puts the chroma plane at byte 92160, not 94208")
        << true;
    QTest::newRow("multi-planar, copied") << true << fits << QStringList{QStringLiteral("--copy")}
                                          << QByteArray("one copy, because --copy is given") << true;
}

void tst_CameraPublish::straightIntoTheStore()
{
    QFETCH(bool, isMultiplanar);
    QFETCH(QSize, frameSize);
    QFETCH(QStringList, options);
    QFETCH(QByteArray, way);
    QFETCH(bool, isFull);
    camera = VirtualCamera::all(isMultiplanar).first();
    QVERIFY2(camera.setFormat(frameSize, V4L2_PIX_FMT_YUYV) && camera.setRate(25) &&
                 camera.showBars("sRGB", "Default", isFull ? "Full Range" : "Default"),
             camera.error().constData());
    publish(options + QStringList{QStringLiteral("--history"), QStringLiteral("1")});
    QVERIFY2(QTest::qWaitFor([&] { return said().contains(way); }, limitMs), said().constData());
    const bool isCopied = way.contains("copy");

    Reader first, second;
    // Each slot has been filled once after this, and is known to the driver.
    QVERIFY2(first.waitForFrames(30), said().constData());
    QVERIFY(second.waitForFrames(5));
    QVERIFY(forgetPagesWritten(publisher.processId()));
    QVERIFY(second.waitForFrames(8));
    const int written = framePagesWritten(publisher.processId());
    if (isCopied)
        QVERIFY2(written > 100, qPrintable(QString::number(written))); // so it would be seen
    else
        QCOMPARE(written, 0);

    first.kill();
    QVERIFY2(second.waitForFrames(8), said().constData());

    shm_video_frame_t frame = {};
    lockNewest(&frame);
    QCOMPARE(frame.width, frameSize.width());
    QCOMPARE(frame.height, frameSize.height());
    QCOMPARE(int(frame.matrix), int(SHM_MATRIX_BT601));
    QCOMPARE(int(frame.range), int(isFull || isCopied ? SHM_RANGE_FULL : SHM_RANGE_LIMITED));
    shm_store_info_t info = {};
    info.size = sizeof info;
    QCOMPARE(shm_reader_get_info(reader.get(), &info), 0);
    QCOMPARE(QByteArray(shm_capture_name(info.capture)), isCopied                  ? QByteArray("copied")
                                                         : way.contains("(DMABUF") ? QByteArray("dmabuf")
                                                                                   : QByteArray("userptr"));
    // The time of the picture, not of something else: the driver's is the end of the frame's interval.
    const qint64 ageMs = QDateTime::currentMSecsSinceEpoch() - frame.timestamp / 1000;
    QVERIFY2(ageMs > -50 && ageMs < 2000, qPrintable(QString::number(ageMs)));
    compareBars(frame);
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
                 ": VIDIOC_S_FMT failed: Device or resource busy; end the program that uses it: `fuser -v " +
                 camera.device() + "` names it\n");
    QCOMPARE(exitCode, 8);
    QVERIFY(second.waitForFrames(5));

    QVERIFY2(camera.set("Disconnect", 1), camera.error().constData());
    QVERIFY(QTest::qWaitFor([this] { return said().contains("connected again"); }, limitMs));
    QVERIFY(second.waitForFrames(10));
}

QByteArray tst_CameraPublish::sayingOf(const QString &input, int *exitCode, const QStringList &options)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral(ZEVSHM_PROGRAM),
                  QStringList{QStringLiteral("publish"), QStringLiteral("other"), input} + options);
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
                                    "zevshm: /dev/video63: open failed: No such file or directory; "
                                    "connect the camera, or name one that `v4l2-ctl --list-devices` lists\n");
    QTest::newRow("no device") << QStringLiteral("v4l2:") << 2
                               << QByteArray(
                                      "zevshm: publish: 'v4l2:' names no device; give v4l2:/dev/video0\n");
    QTest::newRow("no camera")
        << QStringLiteral("v4l2:/dev/null") << 8
        << QByteArray("zevshm: /dev/null: this is not a video4linux2 device (VIDIOC_QUERYCAP is "
                      "unknown there); name a capture device: `v4l2-ctl --list-devices` "
                      "lists them\n");
    const QByteArray other = VirtualCamera::all(true).first().device();
    QTest::newRow("multi-planar, at a rate of its own")
        << QString::fromLatin1("v4l2:" + other) << 8
        << "zevshm: " + other +
               ": has the multi-planar interface, of which NV12 can be published, without --fps and faults; "
               "'v4l2-ctl "
               "-d " +
               other + " --list-formats' lists what it offers\n";
}

void tst_CameraPublish::saysWhatIsWrong()
{
    QFETCH(QString, input);
    QFETCH(int, code);
    QFETCH(QByteArray, text);
    int exitCode = 0;
    const bool isRated = QByteArray(QTest::currentDataTag()).contains("rate");
    QCOMPARE(sayingOf(input, &exitCode,
                      isRated ? QStringList{QStringLiteral("--fps"), QStringLiteral("10")} : QStringList{}),
             text);
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
