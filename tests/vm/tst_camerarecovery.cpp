// What a capture outlives: starts without number, errors that the kernel's virtual camera injects,
// disconnection.
#include "camerafixture.h"

#include <QtTest/QtTest>

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <tuple>

namespace {

using zevmm::v4l2::CaptureStatistics;
using zevmm::v4l2::DmaEglCapture;

} // namespace

class tst_CameraRecovery : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void startsAHundredTimes_data();
    void startsAHundredTimes();
    void outlivesInjectedErrors_data();
    void outlivesInjectedErrors();
    void outlivesDisconnection_data();
    void outlivesDisconnection();
    void saysWhatIsWrong();

private:
    std::unique_ptr<CameraFixture> rig;
};

void tst_CameraRecovery::initTestCase()
{
    rig = std::make_unique<CameraFixture>();
    QVERIFY2(rig->error().isEmpty(), rig->error().constData());
}

void tst_CameraRecovery::cleanupTestCase()
{
    rig.reset();
}

void tst_CameraRecovery::startsAHundredTimes_data()
{
    CameraFixture::addRows();
}

void tst_CameraRecovery::startsAHundredTimes()
{
    QFETCH(int, row);
    QVERIFY2(rig->useCamera(row), rig->camera.error().constData());
    QVERIFY2(rig->camera.setRate(60), rig->camera.error().constData());
    int descriptors = 0;
    for (int i = 0; i < 100; ++i) {
        rig->begin();
        if (i % 10 == 0)
            QVERIFY(rig->next());
        rig->end();
        if (i == 0)
            descriptors = rig->descriptorsLeft();
    }
    QCOMPARE(rig->descriptorsLeft(), descriptors);
    rig->begin();
    QVERIFY(rig->next());
}

void tst_CameraRecovery::outlivesInjectedErrors_data()
{
    QTest::addColumn<QByteArray>("control");
    QTest::addColumn<bool>("isRestart");
    QTest::newRow("a damaged frame") << QByteArray("Inject V4L2_BUF_FLAG_ERROR") << false;
    QTest::newRow("a buffer not taken") << QByteArray("Inject VIDIOC_QBUF Error") << true;
    QTest::newRow("the end of streaming") << QByteArray("Inject Fatal Streaming Error") << true;
}

void tst_CameraRecovery::outlivesInjectedErrors()
{
    QFETCH(QByteArray, control);
    QFETCH(bool, isRestart);
    QVERIFY2(rig->useCamera(0), rig->camera.error().constData());
    rig->begin();
    QVERIFY(rig->next());
    QVERIFY2(rig->camera.set(control, 1), rig->camera.error().constData());
    QVERIFY(QTest::qWaitFor(
        [&] {
            const CaptureStatistics statistics = rig->capture->statistics();
            return isRestart ? statistics.restarts > 0 : statistics.damaged > 0;
        },
        CameraFixture::limitMs));
    const auto before = rig->capture->statistics().captured;
    QVERIFY(QTest::qWaitFor([&] { return rig->capture->statistics().captured > before + 5; },
                            CameraFixture::limitMs));
    QCOMPARE(rig->capture->trouble(), std::string());
    QVERIFY(rig->next());
}

void tst_CameraRecovery::outlivesDisconnection_data()
{
    CameraFixture::addRows();
}

// The driver lets the device return when nobody has it open any more: so this shows that it is closed, too.
void tst_CameraRecovery::outlivesDisconnection()
{
    QFETCH(int, row);
    QVERIFY2(rig->useCamera(row), rig->camera.error().constData());
    rig->begin();
    QVERIFY(rig->next());
    const QImage before = rig->draw(rig->next());
    for (std::uint64_t i = 1; i <= 3; ++i) {
        QVERIFY2(rig->camera.set("Disconnect", 1), rig->camera.error().constData());
        QVERIFY(
            QTest::qWaitFor([&] { return rig->capture->statistics().returns == i; }, CameraFixture::limitMs));
        void *const image = rig->next();
        QVERIFY(image);
        QCOMPARE(rig->draw(image), before);
        QCOMPARE(rig->capture->trouble(), std::string());
    }
}

void tst_CameraRecovery::saysWhatIsWrong()
{
    QVERIFY2(rig->useCamera(0), rig->camera.error().constData());
    const auto errorOf = [](const std::string &device) -> std::pair<int, QByteArray> {
        DmaEglCapture other(device);
        try {
            other.setup();
        } catch (const std::system_error &error) {
            return {error.code().value(), error.what()};
        }
        return {0, "it can be set up"};
    };
    rig->begin();
    auto [code, text] = errorOf(rig->camera.device().toStdString());
    QCOMPARE(code, EBUSY);
    QVERIFY2(text.contains("Device or resource busy; end the program that uses it: `fuser -v " +
                           rig->camera.device()),
             text);
    QVERIFY(rig->next()); // who was first is not disturbed
    rig->end();
    rig->capture.reset();

    std::tie(code, text) = errorOf("/dev/video63");
    QCOMPARE(code, ENOENT);
    QCOMPARE(
        text,
        QByteArray("/dev/video63: open failed: No such file or directory; connect the camera, or name one "
                   "that `v4l2-ctl --list-devices` lists"));
    std::tie(code, text) = errorOf("/dev/null");
    QCOMPARE(code, ENOTTY);
    QVERIFY2(text.startsWith("/dev/null: this is not a video4linux2 device"), text);
    QCOMPARE(seteuid(65534), 0);
    std::tie(code, text) = errorOf(rig->camera.device().toStdString());
    QCOMPARE(seteuid(0), 0);
    QCOMPARE(code, EACCES);
    QVERIFY2(text.contains("Permission denied; join the group"), text);
}

QTEST_MAIN(tst_CameraRecovery)
#include "tst_camerarecovery.moc"
