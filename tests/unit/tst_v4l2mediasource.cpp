// Over a capture library and a currentContext() of the test's own.
#include "fake_zevmm.h"

#include <zevqt-mm/eglimagecontext.h>
#include <zevqt-mm/v4l2mediasource.h>

#include <QtMultimedia/QAbstractVideoBuffer>
#include <QtTest/QtTest>

#include <stdexcept>
#include <thread>

namespace {

char displayMemory;
zevgl::EGLImageContext current;

void *fakeCreate(void *, void *, unsigned int, void *, const int *)
{
    return nullptr;
}

unsigned int fakeDestroy(void *, void *)
{
    return 1;
}

int fakeError()
{
    return 0x3000;
}

template <typename Function>
QString address(Function pointer)
{
    return QString::number(quintptr(pointer), 16);
}

// What a source emits, in order, with the thread that it came in.
class Answers : public QObject
{
public:
    explicit Answers(MediaSourceBase *source)
    {
        connect(
            source, &MediaSourceBase::videoReady, this,
            [this](const QVideoFrame &frame) {
                order << (frame.isValid() ? "frame" : "no frame");
                frames << frame;
                threads << std::this_thread::get_id();
            },
            Qt::DirectConnection);
        connect(
            source, &MediaSourceBase::audioReady, this,
            [this](const QAudioBuffer &buffer) { order << (buffer.isValid() ? "audio" : "no audio"); },
            Qt::DirectConnection);
        connect(
            source, &MediaSourceBase::imageReady, this, [this] { order << "image"; }, Qt::DirectConnection);
    }

    QStringList order;
    QVector<QVideoFrame> frames;
    QVector<std::thread::id> threads;
};

} // namespace

zevgl::EGLImageContext zevgl::EGLImageContext::currentContext()
{
    return current;
}

class tst_V4L2MediaSource : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void construction();
    void pathIsUtf8();
    void failedConstruction_data();
    void failedConstruction();
    void destructionReleasesNoGLResources();

    void opensWithTheGLResources();
    void secondHookCreatesNothing();
    void startsAgainAfterRelease();
    void withoutAContext();
    void incompleteContext_data();
    void incompleteContext();
    void failedStart_data();
    void failedStart();
    void releaseWithoutStartStopsAllTheSame();
    void afterSynchronizingDoesNothing();

    void noFrame();
    void frame();
    void frameFollowsTheFormat();
    void timestampIsIgnored();
    void frameThatComesLate();
    void deliversInTheThreadThatAsks();
    void otherRequests_data();
    void otherRequests();
    void settingsDoNothing();
    void failingReadIsPassedOn();

private:
    FakeZevmm &library = FakeZevmm::instance();
    const QString device = QStringLiteral("/dev/video7");
};

void tst_V4L2MediaSource::init()
{
    library.reset();
    current.display = &displayMemory;
    current.eglCreateImageKHR = fakeCreate;
    current.eglDestroyImageKHR = fakeDestroy;
    current.eglGetError = fakeError;
}

void tst_V4L2MediaSource::cleanup()
{
    QCOMPARE(library.alive, 0);
}

void tst_V4L2MediaSource::construction()
{
    QObject parent;
    auto *source = new V4L2MediaSource(device, &parent);
    QCOMPARE(source->parent(), &parent);
    QCOMPARE(library.takeCalls(), QStringList({"new /dev/video7", "setup"}));
    QCOMPARE(source->name(), device);
    QVERIFY(!source->open());
    QCOMPARE(source->getVideoFrameSize(), QSize(64, 36));
    const auto status = source->getVideoStatus();
    QVERIFY(status.timestamps.isEmpty());
    QCOMPARE(status.frameInterval, 0LL);
    QCOMPARE(status.jitter, 0LL);
    QCOMPARE(&source->getCapture(), &static_cast<const V4L2MediaSource *>(source)->getCapture());
    QCOMPARE(source->getCapture().device(), std::string("/dev/video7"));
    QCOMPARE(library.takeCalls(), QStringList());
}

void tst_V4L2MediaSource::pathIsUtf8()
{
    const QString path = QString::fromUtf8("/dev/v4l/by-id/Kamera-\xc3\xa4");
    const V4L2MediaSource source(path, nullptr);
    QCOMPARE(QByteArray::fromStdString(source.getCapture().device()), path.toUtf8());
    QCOMPARE(source.name(), path);
}

void tst_V4L2MediaSource::failedConstruction_data()
{
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QStringList>("calls");
    QTest::newRow("constructor") << "new" << QStringList({"new /dev/video7", "delete"});
    QTest::newRow("setup") << "setup" << QStringList({"new /dev/video7", "setup", "delete"});
}

void tst_V4L2MediaSource::failedConstruction()
{
    QFETCH(QString, operation);
    QFETCH(QStringList, calls);
    library.failing << operation;
    QObject parent;
    try {
        V4L2MediaSource source(device, &parent);
        QFAIL("nothing thrown");
    } catch (const std::runtime_error &error) {
        QCOMPARE(QString::fromUtf8(error.what()), operation);
    }
    QCOMPARE(library.takeCalls(), calls);
    QVERIFY(parent.children().isEmpty());
}

void tst_V4L2MediaSource::destructionReleasesNoGLResources()
{
    {
        V4L2MediaSource source(device, nullptr);
        source.doBeforeGLSynchronizing();
        library.takeCalls();
    }
    QCOMPARE(library.takeCalls(), QStringList({"delete"}));
}

void tst_V4L2MediaSource::opensWithTheGLResources()
{
    V4L2MediaSource source(device, nullptr);
    library.takeCalls();
    QVERIFY(!source.open());
    source.doBeforeGLSynchronizing();
    QVERIFY(source.open());
    const QString display = address(&displayMemory);
    QCOMPARE(library.takeCalls(),
             QStringList({QStringLiteral("createEGLImages %1 %2").arg(display, address(fakeCreate)),
                          QStringLiteral("start")}));
    source.releaseGLResources();
    QVERIFY(!source.open());
    QCOMPARE(library.takeCalls(),
             QStringList({QStringLiteral("stop"),
                          QStringLiteral("destroyEGLImages %1 %2").arg(display, address(fakeDestroy))}));
}

void tst_V4L2MediaSource::secondHookCreatesNothing()
{
    V4L2MediaSource source(device, nullptr);
    source.doBeforeGLSynchronizing();
    library.takeCalls();
    current = {}; // not even looked at
    source.doBeforeGLSynchronizing();
    QCOMPARE(library.takeCalls(), QStringList());
    QVERIFY(source.open());
}

void tst_V4L2MediaSource::startsAgainAfterRelease()
{
    V4L2MediaSource source(device, nullptr);
    source.doBeforeGLSynchronizing();
    source.releaseGLResources();
    library.takeCalls();
    source.doBeforeGLSynchronizing();
    QVERIFY(source.open());
    const QStringList calls = library.takeCalls();
    QCOMPARE(calls.size(), 2);
    QVERIFY(calls[0].startsWith(QLatin1String("createEGLImages ")));
    QCOMPARE(calls[1], QStringLiteral("start"));
}

void tst_V4L2MediaSource::withoutAContext()
{
    current = {};
    V4L2MediaSource source(device, nullptr);
    library.takeCalls();
    try {
        source.doBeforeGLSynchronizing();
        QFAIL("nothing thrown");
    } catch (const std::runtime_error &error) {
        QCOMPARE(error.what(), "V4L2MediaSource::doBeforeGLSynchronizing: display or functions "
                               "eglCreateImageKHR, eglDestroyImageKHR are empty");
    }
    QVERIFY(!source.open());
    QCOMPARE(library.takeCalls(), QStringList());
}

void tst_V4L2MediaSource::incompleteContext_data()
{
    QTest::addColumn<int>("missing");
    QTest::newRow("display") << 0;
    QTest::newRow("eglCreateImageKHR") << 1;
    QTest::newRow("eglDestroyImageKHR") << 2;
    QTest::newRow("eglGetError") << 3;
}

void tst_V4L2MediaSource::incompleteContext()
{
    QFETCH(int, missing);
    const auto takeAway = [missing] {
        if (missing == 0)
            current.display = nullptr;
        else if (missing == 1)
            current.eglCreateImageKHR = nullptr;
        else if (missing == 2)
            current.eglDestroyImageKHR = nullptr;
        else
            current.eglGetError = nullptr;
    };
    V4L2MediaSource source(device, nullptr);
    const auto whole = current;
    takeAway();
    library.takeCalls();
    QVERIFY_EXCEPTION_THROWN(source.doBeforeGLSynchronizing(), std::runtime_error);
    QVERIFY(!source.open());
    QCOMPARE(library.takeCalls(), QStringList());

    current = whole;
    source.doBeforeGLSynchronizing();
    library.takeCalls();
    takeAway();
    try {
        source.releaseGLResources();
        QFAIL("nothing thrown");
    } catch (const std::runtime_error &error) {
        QCOMPARE(error.what(), "V4L2MediaSource::releaseGLResources: display or functions "
                               "eglCreateImageKHR, eglDestroyImageKHR are empty");
    }
    // Stopped all the same, its images kept.
    QVERIFY(!source.open());
    QCOMPARE(library.takeCalls(), QStringList({"stop"}));
}

void tst_V4L2MediaSource::failedStart_data()
{
    QTest::addColumn<QString>("operation");
    QTest::newRow("images") << "createEGLImages";
    QTest::newRow("start") << "start";
}

void tst_V4L2MediaSource::failedStart()
{
    QFETCH(QString, operation);
    V4L2MediaSource source(device, nullptr);
    library.failing << operation;
    try {
        source.doBeforeGLSynchronizing();
        QFAIL("nothing thrown");
    } catch (const std::runtime_error &error) {
        QCOMPARE(QString::fromUtf8(error.what()), operation);
    }
    QVERIFY(!source.open());
    library.failing.clear();
    source.doBeforeGLSynchronizing(); // the next one tries again
    QVERIFY(source.open());
}

void tst_V4L2MediaSource::releaseWithoutStartStopsAllTheSame()
{
    V4L2MediaSource source(device, nullptr);
    library.takeCalls();
    source.releaseGLResources();
    const QStringList calls = library.takeCalls();
    QCOMPARE(calls.size(), 2);
    QCOMPARE(calls[0], QStringLiteral("stop"));
    QVERIFY(calls[1].startsWith(QLatin1String("destroyEGLImages ")));
}

void tst_V4L2MediaSource::afterSynchronizingDoesNothing()
{
    V4L2MediaSource source(device, nullptr);
    library.takeCalls();
    source.doAfterGLSynchronizing();
    QCOMPARE(library.takeCalls(), QStringList());
    QVERIFY(!source.open());
}

void tst_V4L2MediaSource::noFrame()
{
    V4L2MediaSource source(device, nullptr);
    Answers answers(&source);
    library.takeCalls();
    source.requestVideoAudio(0);
    QCOMPARE(answers.order, QStringList({"no frame", "no audio"}));
    // It goes on to read all the same.
    QCOMPARE(library.takeCalls(), QStringList({"isFrameReady", "readFrame"}));
}

void tst_V4L2MediaSource::frame()
{
    V4L2MediaSource source(device, nullptr);
    Answers answers(&source);
    char image;
    library.images << &image;
    source.requestVideoAudio(0);
    QCOMPARE(answers.order, QStringList({"frame", "no audio"}));
    QVideoFrame frame = answers.frames.first();
    QCOMPARE(frame.pixelFormat(), QVideoFrame::Format_NV12);
    QCOMPARE(frame.handleType(), QAbstractVideoBuffer::EGLImageHandle);
    QCOMPARE(frame.handle().value<void *>(), static_cast<void *>(&image));
    QCOMPARE(frame.size(), QSize(64, 36));
    QCOMPARE(frame.startTime(), qint64(-1));
    QVERIFY(frame.availableMetaData().isEmpty());
    QVERIFY(!frame.map(QAbstractVideoBuffer::ReadOnly));
}

void tst_V4L2MediaSource::frameFollowsTheFormat()
{
    V4L2MediaSource source(device, nullptr);
    Answers answers(&source);
    char image;
    library.images << &image;
    library.format.width = 1920; // the camera came back different
    library.format.height = 1080;
    library.format.pixelFormat = 0x56595559; // whatever it delivers
    source.requestVideoAudio(0);
    QCOMPARE(answers.frames.first().size(), QSize(1920, 1080));
    QCOMPARE(answers.frames.first().pixelFormat(), QVideoFrame::Format_NV12);
    QCOMPARE(source.getVideoFrameSize(), QSize(1920, 1080));
}

void tst_V4L2MediaSource::timestampIsIgnored()
{
    V4L2MediaSource source(device, nullptr);
    Answers answers(&source);
    char images[3];
    for (char &image : images)
        library.images << &image;
    for (const long long ts : {1000000LL, -1LL, 0LL})
        source.requestVideoAudio(ts);
    QCOMPARE(answers.frames.size(), 3);
    for (int i = 0; i < 3; ++i)
        QCOMPARE(answers.frames[i].handle().value<void *>(), static_cast<void *>(images + i));
}

void tst_V4L2MediaSource::frameThatComesLate()
{
    V4L2MediaSource source(device, nullptr);
    Answers answers(&source);
    char image;
    library.images << &image;
    library.lateFrame = true;
    source.requestVideoAudio(0);
    QCOMPARE(answers.order, QStringList({"no frame", "no audio", "frame", "no audio"}));
}

void tst_V4L2MediaSource::deliversInTheThreadThatAsks()
{
    V4L2MediaSource source(device, nullptr);
    Answers answers(&source);
    char image;
    library.images << &image;
    // Not Qt's: the thread sanitizer does not see into those.
    std::thread thread([&] { source.requestVideoAudio(0); });
    const std::thread::id asking = thread.get_id();
    thread.join();
    QCOMPARE(answers.threads.size(), 1);
    QVERIFY(answers.threads.first() == asking);
}

void tst_V4L2MediaSource::otherRequests_data()
{
    QTest::addColumn<QString>("slot");
    for (const char *slot : {"requestVideo", "requestImage", "requestAudio", "requestImageAudio"})
        QTest::newRow(slot) << slot;
}

void tst_V4L2MediaSource::otherRequests()
{
    QFETCH(QString, slot);
    V4L2MediaSource source(device, nullptr);
    source.doBeforeGLSynchronizing();
    Answers answers(&source);
    char image;
    library.images << &image;
    library.takeCalls();
    QVERIFY(QMetaObject::invokeMethod(&source, slot.toLatin1().constData(), Q_ARG(qint64, 0)));
    QCOMPARE(answers.order, QStringList());
    QCOMPARE(library.takeCalls(), QStringList()); // the camera's frame is not used up
}

void tst_V4L2MediaSource::settingsDoNothing()
{
    V4L2MediaSource source(device, nullptr);
    library.takeCalls();
    source.setRealtimeSyncRange(-1, 1);
    source.setVideoFrameRate(50u, 1u);
    source.setVideoFrameRate(50.0);
    source.setRequestedImageFormat(QSize(8, 8), QImage::Format_RGB16, true, true);
    QCOMPARE(library.takeCalls(), QStringList());
    QCOMPARE(source.getVideoFrameSize(), QSize(64, 36));
    Answers answers(&source);
    char image;
    library.images << &image;
    source.requestVideoAudio(0);
    QCOMPARE(answers.order, QStringList({"frame", "no audio"}));
}

void tst_V4L2MediaSource::failingReadIsPassedOn()
{
    V4L2MediaSource source(device, nullptr);
    Answers answers(&source);
    library.failing << QStringLiteral("readFrame");
    QVERIFY_EXCEPTION_THROWN(source.requestVideoAudio(0), std::runtime_error);
    QCOMPARE(answers.order, QStringList({"no frame", "no audio"}));
    library.failing.clear();
    source.requestVideoAudio(0);
    QCOMPARE(answers.order.size(), 4);
}

QTEST_GUILESS_MAIN(tst_V4L2MediaSource)

#include "tst_v4l2mediasource.moc"
