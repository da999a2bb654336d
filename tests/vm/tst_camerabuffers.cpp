// Which buffer of the kernel's virtual camera is whose, and that the newest frame is the one delivered.
#include "camerafixture.h"

#include <QtTest/QtTest>

#include <algorithm>
#include <ctime>

namespace {

using zevmm::v4l2::CaptureStatistics;

qint64 monotonicUs()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return qint64(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

} // namespace

class tst_CameraBuffers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void aDeliveredFrameStays_data();
    void aDeliveredFrameStays();
    void deliversTheNewest_data();
    void deliversTheNewest();
    void aFrameAfterAPauseIsNew();

private:
    std::unique_ptr<CameraFixture> rig;
};

void tst_CameraBuffers::initTestCase()
{
    rig = std::make_unique<CameraFixture>();
    QVERIFY2(rig->error().isEmpty(), rig->error().constData());
}

void tst_CameraBuffers::cleanupTestCase()
{
    rig.reset();
}

void tst_CameraBuffers::aDeliveredFrameStays_data()
{
    CameraFixture::addRows();
}

// Every frame differs from the one before, and the driver goes round its buffers many times meanwhile.
void tst_CameraBuffers::aDeliveredFrameStays()
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

void tst_CameraBuffers::deliversTheNewest_data()
{
    CameraFixture::addRows();
}

// In a virtual machine without a processor to itself a thread may have to wait: the median counts, and the
// order.
void tst_CameraBuffers::deliversTheNewest()
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
void tst_CameraBuffers::aFrameAfterAPauseIsNew()
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

QTEST_MAIN(tst_CameraBuffers)
#include "tst_camerabuffers.moc"
