// What a provider shows while its source delivers nothing, and the sizes of its pictures.
#include "fake_shm.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>

#include <QtTest/QtTest>

#include <limits>

using std::chrono::seconds;

class tst_MediaProviderNoSignal : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void validFramesPass();
    void invalidFramesAreIdleFirst();
    void neverAFrameShowsThePictureAtOnce();
    void pictureAfterTheDelay();
    void pictureAfterFiveSecondsByDefault();
    void imagesHaveNoIdleSignal();
    void endlessDelay_data();
    void endlessDelay();
    void delayThatIsOverBeforeItBegins_data();
    void delayThatIsOverBeforeItBegins();
    void noSignalImageIsScaled();
    void newSizeScalesAgain();
    void sameSizeDoesNothing_data();
    void sameSizeDoesNothing();
    void unreadablePicture();
    void emptyPathKeepsThePicture();
    void samePathReloadsNothing();
    void settersEmitNothing();

private:
    static QUrl url(const char *text) { return QUrl(QString::fromUtf8(text)); }

    FakeShm &store = FakeShm::instance();
    QTemporaryDir folder;
    QString picture; // 100 x 50, red
};

void tst_MediaProviderNoSignal::initTestCase()
{
    qunsetenv("ZEV_GL_DMABUF");
    QVERIFY(folder.isValid());
    picture = folder.filePath(QStringLiteral("nosignal.png"));
    QImage image(100, 50, QImage::Format_ARGB32);
    image.fill(Qt::red);
    QVERIFY(image.save(picture));
}

void tst_MediaProviderNoSignal::init()
{
    store.reset();
}

void tst_MediaProviderNoSignal::cleanup()
{
    QCoreApplication::sendPostedEvents();
    QCOMPARE(store.lockedFrames, 0);
    QCOMPARE(store.openHandles, 0);
}

void tst_MediaProviderNoSignal::validFramesPass()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    const QVideoFrame frame(QImage(16, 16, QImage::Format_RGB32));
    provider.emitVideoFrame(frame);
    QCOMPARE(frames.count(), 1);
    QVERIFY(frames.at(0).at(0).value<QVideoFrame>() == frame);
    QCOMPARE(idle.count(), 0);
}

void tst_MediaProviderNoSignal::invalidFramesAreIdleFirst()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(3600));
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    provider.emitVideoFrame(QVideoFrame(QImage(16, 16, QImage::Format_RGB32)));
    for (int i = 0; i < 3; ++i)
        provider.emitVideoFrame(QVideoFrame());
    QCOMPARE(frames.count(), 1);
    QCOMPARE(idle.count(), 3);
}

void tst_MediaProviderNoSignal::neverAFrameShowsThePictureAtOnce()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(5)); // the default delay: the deadline stays expired
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy images(&provider, &MediaProvider::imageReady);
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    provider.emitVideoFrame(QVideoFrame());
    provider.emitImageFrame(QImage());
    QCOMPARE(idle.count(), 0);
    QCOMPARE(images.count(), 1);
    QCOMPARE(frames.count(), 1);
    auto frame = frames.at(0).at(0).value<QVideoFrame>();
    QCOMPARE(frame.size(), QSize(100, 50)); // its own size
    QCOMPARE(frame.pixelFormat(), QVideoFrame::Format_RGB32);
    QCOMPARE(frame.image().pixelColor(3, 3), QColor(Qt::red));
}

void tst_MediaProviderNoSignal::pictureAfterTheDelay()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(0)); // a delay that is over at once
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    provider.emitVideoFrame(QVideoFrame(QImage(16, 16, QImage::Format_RGB32)));
    provider.emitVideoFrame(QVideoFrame());
    provider.emitVideoFrame(QVideoFrame());
    QCOMPARE(idle.count(), 0);
    QCOMPARE(frames.count(), 3); // the picture on every delivery
    QCOMPARE(frames.at(2).at(0).value<QVideoFrame>().size(), QSize(100, 50));
    provider.emitVideoFrame(QVideoFrame(QImage(16, 16, QImage::Format_RGB32)));
    QCOMPARE(frames.at(3).at(0).value<QVideoFrame>().size(), QSize(16, 16)); // and the source is back
}

// In real time, since the deadline knows no other; a coarse one may be off by 5 %.
void tst_MediaProviderNoSignal::pictureAfterFiveSecondsByDefault()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(5));
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    provider.emitVideoFrame(QVideoFrame());
    QCOMPARE(frames.count(), 1); // another delay would have armed the deadline
    frames.clear();
    QElapsedTimer clock;
    clock.start();
    provider.emitVideoFrame(QVideoFrame(QImage(16, 16, QImage::Format_RGB32)));
    const qint64 armedBy = clock.elapsed();
    int asked = 0;
    for (; frames.count() == 1; ++asked) {
        const qint64 now = clock.elapsed();
        provider.emitVideoFrame(QVideoFrame());
        QVERIFY(frames.count() == 2 || now < armedBy + 5250);
        if (now > 2500)
            provider.setNoSignalImage(picture, seconds(5)); // nothing new: the deadline stays
        QThread::msleep(20);
    }
    QVERIFY2(clock.elapsed() >= 4750, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(idle.count(), asked - 1); // each of them, but the last
    for (int i = 0; i < 3; ++i)
        provider.emitVideoFrame(QVideoFrame());
    QCOMPARE(frames.count(), 5);
    QCOMPARE(idle.count(), asked - 1);
    QCOMPARE(frames.at(4).at(0).value<QVideoFrame>().size(), QSize(100, 50));
}

void tst_MediaProviderNoSignal::imagesHaveNoIdleSignal()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    QSignalSpy images(&provider, &MediaProvider::imageReady);
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    provider.emitImageFrame(
        QImage(16, 16, QImage::Format_RGB16)); // five seconds from here nothing replaces it
    provider.emitImageFrame(QImage());
    QCOMPARE(images.count(), 1);
    QCOMPARE(idle.count(), 0);
    provider.setNoSignalImage(QString(), seconds(0));
    provider.emitImageFrame(QImage());
    QCOMPARE(images.count(), 2);
    QVERIFY(images.at(1).at(0).value<QImage>().isNull()); // no picture was set
}

void tst_MediaProviderNoSignal::endlessDelay_data()
{
    QTest::addColumn<qint64>("delay");
    QTest::newRow("largest") << qint64(seconds::max().count());
    QTest::newRow("one less") << qint64(seconds::max().count() - 1);
    QTest::newRow("beyond the nanoseconds") << qint64(std::numeric_limits<qint64>::max() / 1000000000 + 1);
}

void tst_MediaProviderNoSignal::endlessDelay()
{
    QFETCH(qint64, delay);
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(delay));
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    provider.emitVideoFrame(QVideoFrame());
    QCOMPARE(idle.count(), 1);
}

void tst_MediaProviderNoSignal::delayThatIsOverBeforeItBegins_data()
{
    QTest::addColumn<qint64>("delay");
    QTest::newRow("a second ago") << qint64(-1);
    QTest::newRow("beyond the nanoseconds") << qint64(-10000000000); // wraps to 268 years to come
    QTest::newRow("least") << qint64(seconds::min().count());
}

void tst_MediaProviderNoSignal::delayThatIsOverBeforeItBegins()
{
    QFETCH(qint64, delay);
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(delay));
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    provider.emitVideoFrame(QVideoFrame(QImage(16, 16, QImage::Format_RGB32)));
    provider.emitVideoFrame(QVideoFrame());
    QCOMPARE(idle.count(), 0);
}

void tst_MediaProviderNoSignal::noSignalImageIsScaled()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(0));
    QSignalSpy images(&provider, &MediaProvider::imageReady);
    provider.emitImageFrame(QImage());
    const auto image = images.at(0).at(0).value<QImage>();
    QCOMPARE(image.size(), QSize(320, 160)); // 100 x 50 in 320 x 240
    QCOMPARE(image.format(), QImage::Format_RGB16);
    QCOMPARE(image.pixelColor(100, 100), QColor(Qt::red));
}

void tst_MediaProviderNoSignal::newSizeScalesAgain()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(0));
    provider.setRequestedFrameSize(QSize(50, 50));
    QSignalSpy images(&provider, &MediaProvider::imageReady);
    provider.emitImageFrame(QImage());
    QCOMPARE(images.at(0).at(0).value<QImage>().size(), QSize(50, 25));
    provider.getVideoSource()->requestImage(0);
    const auto image = images.at(1).at(0).value<QImage>();
    QCOMPARE(image.size(), QSize(50, 28));
    QCOMPARE(image.format(), QImage::Format_RGB16);
}

void tst_MediaProviderNoSignal::sameSizeDoesNothing_data()
{
    QTest::addColumn<QSize>("before");
    QTest::addColumn<QSize>("asked");
    QTest::addColumn<bool>("isNew");
    QTest::newRow("the one at first") << QSize() << QSize(320, 240) << false;
    QTest::newRow("one that was set") << QSize(64, 36) << QSize(64, 36) << false;
    QTest::newRow("the one before that") << QSize(64, 36) << QSize(320, 240) << true;
    QTest::newRow("another width") << QSize() << QSize(318, 240) << true;
    QTest::newRow("another height") << QSize() << QSize(320, 241) << true;
    QTest::newRow("the other way round") << QSize() << QSize(240, 320) << true;
}

// Neither is the picture loaded again nor is the source told a format: both are made to differ first.
void tst_MediaProviderNoSignal::sameSizeDoesNothing()
{
    QFETCH(QSize, before);
    QFETCH(QSize, asked);
    QFETCH(bool, isNew);
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(0));
    if (before.isValid())
        provider.setRequestedFrameSize(before);
    QSignalSpy images(&provider, &MediaProvider::imageReady);
    provider.emitImageFrame(QImage());
    const QSize shown = images.at(0).at(0).value<QImage>().size();
    provider.getVideoSource()->setRequestedImageFormat(QSize(60, 40), QImage::Format_RGB32, true, true);
    const QString moved = picture + ".moved";
    QVERIFY(QFile::rename(picture, moved)); // loading it now gives a null image
    provider.setRequestedFrameSize(asked);
    QVERIFY(QFile::rename(moved, picture));

    provider.emitImageFrame(QImage());
    QCOMPARE(images.at(1).at(0).value<QImage>().size(), isNew ? QSize(0, 0) : shown);
    provider.getVideoSource()->requestImage(0);
    const auto image = images.at(2).at(0).value<QImage>();
    QCOMPARE(image.width(), isNew ? asked.width() : 60);
}

QStringList logged;

void tst_MediaProviderNoSignal::unreadablePicture()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    logged.clear();
    const auto before = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext &, const QString &text) { logged << text; });
    provider.setNoSignalImage(picture, seconds(0));
    provider.setNoSignalImage(folder.filePath(QStringLiteral("none.png")), seconds(0));
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy images(&provider, &MediaProvider::imageReady);
    provider.emitVideoFrame(QVideoFrame());
    provider.emitImageFrame(QImage());
    qInstallMessageHandler(before);
    QVERIFY(!frames.at(0).at(0).value<QVideoFrame>().isValid());
    QVERIFY(images.at(0).at(0).value<QImage>().isNull());
    QCOMPARE(logged, QStringList()); // nothing of Qt's either
}

void tst_MediaProviderNoSignal::emptyPathKeepsThePicture()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(0));
    provider.setNoSignalImage(QString(), seconds(0));
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    provider.emitVideoFrame(QVideoFrame());
    QCOMPARE(frames.at(0).at(0).value<QVideoFrame>().size(), QSize(100, 50));
}

void tst_MediaProviderNoSignal::samePathReloadsNothing()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(0));
    const QString moved = picture + ".moved";
    QVERIFY(QFile::rename(picture, moved)); // loading it now would give nothing
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    provider.setNoSignalImage(picture, seconds(3600)); // re-arms the deadline
    provider.emitVideoFrame(QVideoFrame());
    provider.setNoSignalImage(picture, seconds(0));
    provider.emitVideoFrame(QVideoFrame());
    QVERIFY(QFile::rename(moved, picture));
    QCOMPARE(idle.count(), 1);
    QCOMPARE(frames.count(), 1);
    QCOMPARE(frames.at(0).at(0).value<QVideoFrame>().size(), QSize(100, 50));
}

void tst_MediaProviderNoSignal::settersEmitNothing()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    QSignalSpy paths(&provider, &MediaProvider::noSignalImagePathChanged);
    QSignalSpy delays(&provider, &MediaProvider::noSignalDelayChanged);
    provider.setNoSignalImage(picture, seconds(7));
    QCOMPARE(paths.count() + delays.count(), 0);
    QVERIFY(QMetaObject::invokeMethod(&provider, "noSignalDelayChanged",
                                      Q_ARG(std::chrono::seconds, seconds(3))));
    QCOMPARE(delays.count(), 1);
}

QTEST_GUILESS_MAIN(tst_MediaProviderNoSignal)
#include "tst_mediaprovidernosignal.moc"
