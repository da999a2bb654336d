#include "pulseserver.h"
#include "tonepublisher.h"

#include <zevqt-mm/audioplayer.h>

#include <QtTest/QtTest>

namespace {

const int patienceMs = 30000;
const TonePublisher::Tone tone{441.0, 8000};

const int starts = 1000;

int entriesOf(const char *folder)
{
    return QDir(QLatin1String(folder))
        .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)
        .size();
}

} // namespace

// Against what there is after the first start, from which on Qt keeps its connection to the sound server.
class tst_AudioRestarts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aThousandStartsLeakNothing();
};

void tst_AudioRestarts::aThousandStartsLeakNothing()
{
    QTemporaryDir stores(QStringLiteral("/tmp/zev-XXXXXX"));
    qputenv("ZEV_SHM_DIR", stores.path().toUtf8());
    PulseServer server;
    if (!server.start())
        QSKIP("no sound server: is pulseaudio installed?");
    TonePublisher publisher("tone", 48000, {tone, tone});
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    AudioPlayer *player = AudioPlayer::getInstance();
    QSignalSpy played(player, &AudioPlayer::audioPlayed);
    int descriptors = 0;
    int threads = 0;
    for (int i = 0; i < starts; ++i) {
        // Another output every time, now and then on another device: to look for one takes twenty times as
        // long.
        if (i % 20 == 0)
            QVERIFY(player->setDevice(QLatin1String(i % 40 ? "a" : "b")));
        player->setFixedSampleRate(i % 2 ? 44100 : 48000);
        QVERIFY(player->start(&source, 25));
        if (i % 100 == 99) {
            played.clear();
            QTRY_VERIFY_WITH_TIMEOUT(played.count() > 0, patienceMs);
        }
        player->stop();
        QCoreApplication::processEvents();
        if (i == 0) {
            descriptors = entriesOf("/proc/self/fd");
            threads = entriesOf("/proc/self/task");
        }
    }
    QCOMPARE(entriesOf("/proc/self/fd"), descriptors);
    QCOMPARE(entriesOf("/proc/self/task"), threads);
    AudioPlayer::teardown();
}

QTEST_GUILESS_MAIN(tst_AudioRestarts)
#include "tst_audiorestarts.moc"
