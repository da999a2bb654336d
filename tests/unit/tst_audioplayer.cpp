#include "audioplayer_testing.h"

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

class tst_AudioPlayer : public AudioPlayerTest
{
    Q_OBJECT

private Q_SLOTS:
    void thereIsOnePlayer();
    void metaObjectIsLaidDown();
    void defaults();
    void startWithoutADeviceSaysNothing();
    void startWithoutASourceFails();
    void devicesAreFoundByExactName();
    void emptyDeviceNameStopsAndKeepsTheDevice();
    void unknownDeviceStopsAndKeepsTheDevice();
    void anotherDeviceGetsAnotherOutput();
    void theSameDeviceKeepsItsOutput();
    void startPlaysTheSourcesFormat();
    void startWithoutAudio_data();
    void startWithoutAudio();
    void readerThatCannotBeOpened();
    void fixedSampleRate_data();
    void fixedSampleRate();
    void outputIsReusedForAnEqualFormat();
    void outputThatFails_data();
    void outputThatFails();
    void audioThatIsRequiredAndGoesAway_data();
    void audioThatIsRequiredAndGoesAway();
    void notifyIntervalFollowsTheFrameRate_data();
    void notifyIntervalFollowsTheFrameRate();
    void stopClosesTheReaderAndSaysSo();
    void deviceThatStopsByItself();
    void idleIsNoStop();
    void volume();
    void muteAndVolume();
    void delaysAreTheReaders();
    void waveformFile();
    void waveformFileGoesOnThroughAStop();
    void anotherWaveformFile();
    void waveformFileThatCannotBeOpened();
    void startThroughTheMetaObject();
};

void tst_AudioPlayer::thereIsOnePlayer()
{
    AudioPlayer *first = player();
    QCOMPARE(AudioPlayer::getInstance(), first);
    QVERIFY(!first->parent());
    QPointer<AudioPlayer> guard(first);
    AudioPlayer::teardown();
    QVERIFY(!guard);
    QCOMPARE(takeLog(), QStringList{QStringLiteral("0 Audio player destroyed")});
    AudioPlayer::teardown();
    QVERIFY(takeLog().isEmpty());
}

void tst_AudioPlayer::metaObjectIsLaidDown()
{
    const QMetaObject &meta = AudioPlayer::staticMetaObject;
    QCOMPARE(meta.className(), "AudioPlayer");
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        methods.append(QString::fromLatin1(meta.method(i).methodSignature()));
    QCOMPARE(methods.join(QLatin1Char(' ')),
             QStringLiteral(
                 "audioPlayed(qlonglong) playerStopped() mutedChanged() volumeChanged() setDevice(QString) "
                 "start(MediaSource*,double,bool) start(MediaSource*,double) start(MediaSource*) stop() "
                 "setVolume(double) setMuted(bool) setDelay(qlonglong) setMaxDelay(qlonglong) "
                 "setFixedSampleRate(int) onFrameTimer() playerStateChanged(QAudio::State) "
                 "activeSourceDestroyed()"));
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        QVERIFY(property.isReadable() && property.isWritable());
        properties.append(QStringLiteral("%1 %2 %3")
                              .arg(QLatin1String(property.typeName()), QLatin1String(property.name()),
                                   QLatin1String(property.notifySignal().name())));
    }
    QCOMPARE(properties.join(QLatin1Char(',')),
             QStringLiteral(
                 "double volume volumeChanged,bool muted mutedChanged,qlonglong delay ,qlonglong maxDelay ,"
                 "int fixedSampleRate "));
    QCOMPARE(meta.method(meta.indexOfMethod("audioPlayed(qlonglong)")).parameterNames(),
             QList<QByteArray>{"timestamp"});
}

void tst_AudioPlayer::defaults()
{
    QCOMPARE(player()->volume(), 1.0);
    QCOMPARE(player()->muted(), false);
    QCOMPARE(player()->delay(), qint64(200000));
    QCOMPARE(player()->maxDelay(), qint64(300000));
    QCOMPARE(player()->fixedSampleRate(), -1);
    QCOMPARE(player()->sampleRate(), 0);
    QCOMPARE(player()->getPlayedTime(), qint64(0));
    QCOMPARE(player()->getReadPosition(), qint64(0));
    QVERIFY(!player()->enabled());
    QVERIFY(!player()->isActive());
}

void tst_AudioPlayer::startWithoutADeviceSaysNothing()
{
    QVERIFY(!player()->start(source.get(), 25));
    QVERIFY(takeLog().isEmpty());
}

void tst_AudioPlayer::startWithoutASourceFails()
{
    player()->setDevice(QStringLiteral("default"));
    takeLog();
    QVERIFY(!player()->start(nullptr, 25));
    QVERIFY(takeLog().isEmpty());
}

void tst_AudioPlayer::devicesAreFoundByExactName()
{
    QVERIFY(player()->setDevice(QStringLiteral("default")));
    QCOMPARE(takeLog(), QStringList{QStringLiteral("0 Selected default audio playback device \"speaker\"")});
    QVERIFY(player()->enabled());
    QVERIFY(player()->setDevice(QStringLiteral("headphones")));
    QCOMPARE(takeLog(), QStringList{QStringLiteral("0 Selected audio playback device \"headphones\"")});
    QVERIFY(!player()->setDevice(QStringLiteral("Headphones")));
    QVERIFY(!player()->setDevice(QStringLiteral("head")));
    takeLog();

    // "default" in another case is a name like any other: here there is such a device, and then none.
    QVERIFY(player()->setDevice(QStringLiteral("Default")));
    QCOMPARE(takeLog(), QStringList{QStringLiteral("0 Selected audio playback device \"Default\"")});
    devices().devices.removeAll(QStringLiteral("Default"));
    QVERIFY(!player()->setDevice(QStringLiteral("Default")));
}

void tst_AudioPlayer::emptyDeviceNameStopsAndKeepsTheDevice()
{
    QVERIFY(player()->setDevice(QString()));
    QVERIFY(!player()->enabled());
    player()->setDevice(QStringLiteral("headphones"));
    QVERIFY(player()->start(source.get(), 25));
    QVERIFY(player()->setDevice(QString()));
    QVERIFY(!player()->isActive());
    QVERIFY(player()->enabled());
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(devices().createdOn, QStringList{QStringLiteral("headphones")});
}

void tst_AudioPlayer::unknownDeviceStopsAndKeepsTheDevice()
{
    player()->setDevice(QStringLiteral("headphones"));
    QVERIFY(player()->start(source.get(), 25));
    takeLog();
    QVERIFY(!player()->setDevice(QStringLiteral("trumpet")));
    QVERIFY(!player()->isActive());
    QCOMPARE(takeLog().last(), QStringLiteral("1 Audio playback device \"trumpet\" not found"));
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(devices().createdOn, QStringList{QStringLiteral("headphones")});
}

void tst_AudioPlayer::anotherDeviceGetsAnotherOutput()
{
    player()->setDevice(QStringLiteral("speaker"));
    QVERIFY(player()->start(source.get(), 25));
    player()->setDevice(QStringLiteral("headphones"));
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(devices().createdOn, QStringList({QStringLiteral("speaker"), QStringLiteral("headphones")}));
    QCOMPARE(devices().liveOutputs, 1);
}

void tst_AudioPlayer::theSameDeviceKeepsItsOutput()
{
    player()->setDevice(QStringLiteral("headphones"));
    QVERIFY(player()->start(source.get(), 25));
    QVERIFY(player()->setDevice(QStringLiteral("headphones")));
    QVERIFY(!player()->isActive());
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(devices().createdOn, QStringList{QStringLiteral("headphones")});
    QCOMPARE(output()->resets, 1);
}

void tst_AudioPlayer::startPlaysTheSourcesFormat()
{
    player()->setDevice(QStringLiteral("default"));
    takeLog();
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(takeLog(), QStringList({QStringLiteral("0 Audio playback starting for \"mic\""),
                                     QStringLiteral("0 Audio player state changed to ActiveState"),
                                     QStringLiteral("4 Audio playback started for \"mic\" (48000/2/16)")}));
    QVERIFY(player()->isActive());
    QCOMPARE(player()->sampleRate(), 48000);
    QCOMPARE(output()->format(), source->getAudioFormat());
    QCOMPARE(fakeclock::starts, 1);
    QVERIFY(output()->bufferSizes.isEmpty());
    const QByteArray data = output()->pull(3840);
    QCOMPARE(data.size(), 3840);
    const auto *samples = reinterpret_cast<const qint16 *>(data.constData());
    QCOMPARE(samples[0], FakeAudioStore::sample(store().indexOf(now - 200000), 0));
    QCOMPARE(samples[1], FakeAudioStore::sample(store().indexOf(now - 200000), 1));
    QVERIFY(player()->getReadPosition() > now - 200000);
}

void tst_AudioPlayer::startWithoutAudio_data()
{
    QTest::addColumn<bool>("requireAudio");
    QTest::newRow("required") << true;
    QTest::newRow("not required") << false;
}

void tst_AudioPlayer::startWithoutAudio()
{
    QFETCH(bool, requireAudio);
    store().hasAudio = false;
    QVERIFY(source->open());
    player()->setDevice(QStringLiteral("default"));
    takeLog();
    QCOMPARE(player()->start(source.get(), 25, requireAudio), !requireAudio);
    if (requireAudio) {
        QCOMPARE(takeLog().last(), QStringLiteral("2 Source \"mic\" does not have audio"));
        QVERIFY(!player()->isActive());
        QVERIFY(devices().createdOn.isEmpty());
    } else {
        QCOMPARE(output()->format(), devices().preferred);
        QCOMPARE(output()->pull(4000), QByteArray(4000, 0));
    }
}

void tst_AudioPlayer::readerThatCannotBeOpened()
{
    // A device that wants what the resampler cannot make.
    store().hasAudio = false;
    QVERIFY(source->open());
    devices().preferred.setSampleSize(24);
    player()->setDevice(QStringLiteral("default"));
    store().hasAudio = true;
    QVERIFY(source->open());
    devices().rates = {};
    store().sampleRate = 96000; // nothing near: the format becomes the preferred one's
    QVERIFY(source->open());
    takeLog();
    const QAudioFormat nearest =
        QAudioDeviceInfo::defaultOutputDevice().nearestFormat(source->getAudioFormat());
    QVERIFY(nearest != source->getAudioFormat()); // or there would be nothing to convert
    QVERIFY(!player()->start(source.get(), 25));
    const QStringList messages = takeLog();
    QVERIFY2(messages.contains(QStringLiteral("2 Error in creating resampler")),
             qPrintable(messages.join('\n')));
    QCOMPARE(messages.last(), QStringLiteral("2 Failed to open audio reader for \"mic\""));
    QVERIFY(!player()->isActive());
}

void tst_AudioPlayer::fixedSampleRate_data()
{
    QTest::addColumn<int>("fixed");
    QTest::addColumn<int>("sourceRate");
    QTest::addColumn<int>("played");
    QTest::newRow("none") << -1 << 44100 << 44100;
    QTest::newRow("48000 of a 44100 source") << 48000 << 44100 << 48000;
    QTest::newRow("the source's own") << 44100 << 44100 << 44100;
    // 32000 is not to be had: the device's nearest format wins.
    QTest::newRow("refused by the device") << 32000 << 48000 << 44100;
}

void tst_AudioPlayer::fixedSampleRate()
{
    QFETCH(int, fixed);
    QFETCH(int, sourceRate);
    QFETCH(int, played);
    store().sampleRate = sourceRate;
    QVERIFY(source->open());
    player()->setDevice(QStringLiteral("default"));
    player()->setFixedSampleRate(fixed);
    QCOMPARE(player()->fixedSampleRate(), fixed);
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(player()->sampleRate(), played);
    QCOMPARE(output()->pull(4000).size(), 4000);
    // A resampler asks for 1024 frames, passing through for what QIODevice buffers: 16384 bytes of stereo.
    QCOMPARE(store().queries.front().frames, played == sourceRate ? 4096ul : 1024ul);
}

void tst_AudioPlayer::outputIsReusedForAnEqualFormat()
{
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    FakeAudioOutput *first = output();
    QCOMPARE(first->resets, 0);
    player()->stop();
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(output(), first);
    QCOMPARE(first->resets, 1);
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    QVERIFY(player()->start(source.get(), 25)); // while playing: stops first
    QCOMPARE(stopped.count(), 1);
    QCOMPARE(first->resets, 2);

    store().sampleRate = 44100;
    QVERIFY(source->open());
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(devices().createdOn.size(), 2);
    store().channels = 1;
    QVERIFY(source->open());
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(devices().createdOn.size(), 3);
    QCOMPARE(devices().liveOutputs, 1);
}

void tst_AudioPlayer::outputThatFails_data()
{
    QTest::addColumn<QList<QAudio::State>>("states");
    QTest::newRow("and stops") << QList<QAudio::State>{QAudio::ActiveState, QAudio::StoppedState};
    QTest::newRow("without a change of its state") << QList<QAudio::State>{};
    QTest::newRow("and stays active") << QList<QAudio::State>{QAudio::ActiveState};
}

void tst_AudioPlayer::outputThatFails()
{
    QFETCH(QList<QAudio::State>, states);
    devices().startError = QAudio::OpenError;
    devices().failing = states;
    player()->setDevice(QStringLiteral("default"));
    takeLog();
    QVERIFY(!player()->start(source.get(), 25));
    const QStringList messages = takeLog();
    const QString failure = QStringLiteral("2 Audio playback failed for \"mic\" Error code: OpenError");
    QCOMPARE(messages.count(failure), 1);
    // The failure first, then what stopping says.
    QCOMPARE(messages.last(), states == QList<QAudio::State>{QAudio::ActiveState}
                                  ? QStringLiteral("4 Audio playback stopped")
                                  : failure);
    QVERIFY(!player()->isActive());
    QCOMPARE(output()->state(), QAudio::StoppedState);
    QVERIFY(!output()->hasOpenDevice());
    QCOMPARE(player()->getReadPosition(), qint64(0));
    QCOMPARE(fakeclock::starts, 0);
    // It can be started again, and nothing holds on to the source after that.
    devices().startError = QAudio::NoError;
    QVERIFY(player()->start(source.get(), 25));
    QVERIFY(!output()->pull(3840).isEmpty());
    player()->stop();
    takeLog();
    source.reset();
    QVERIFY(takeLog().isEmpty());
}

void tst_AudioPlayer::audioThatIsRequiredAndGoesAway_data()
{
    QTest::addColumn<bool>("requireAudio");
    QTest::newRow("required: nothing can be read") << true;
    QTest::newRow("not required: silence") << false;
}

void tst_AudioPlayer::audioThatIsRequiredAndGoesAway()
{
    QFETCH(bool, requireAudio);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25, requireAudio));
    const QByteArray audible = output()->pull(16384); // as much as is read ahead
    QCOMPARE(audible.size(), 16384);
    QVERIFY(audible != QByteArray(16384, 0));
    store().hasAudio = false;
    QVERIFY(source->open());
    QCOMPARE(output()->pull(3840), requireAudio ? QByteArray() : QByteArray(3840, 0));
    QVERIFY(player()->isActive()); // what to make of it is the device's
}

void tst_AudioPlayer::notifyIntervalFollowsTheFrameRate_data()
{
    QTest::addColumn<double>("fps");
    QTest::addColumn<int>("interval");
    QTest::newRow("25") << 25.0 << 40;
    QTest::newRow("30") << 30.0 << 33;
    QTest::newRow("29.97") << 29.97 << 33;
    QTest::newRow("59.94") << 59.94 << 16;
    QTest::newRow("one in ten seconds") << 0.1 << 10000;
    QTest::newRow("next to nothing") << 1e-300 << std::numeric_limits<int>::max();
    QTest::newRow("0: left as it was") << 0.0 << 1000;
    QTest::newRow("negative: left as it was") << -25.0 << 1000;
}

void tst_AudioPlayer::notifyIntervalFollowsTheFrameRate()
{
    QFETCH(double, fps);
    QFETCH(int, interval);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), fps));
    QCOMPARE(output()->notifyInterval(), interval);
    player()->stop();
    QVERIFY(player()->start(source.get(), 0));
    QCOMPARE(output()->notifyInterval(), interval);
}

void tst_AudioPlayer::stopClosesTheReaderAndSaysSo()
{
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    player()->stop(); // nothing to stop
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    takeLog();
    player()->stop();
    QCOMPARE(takeLog(), QStringList({QStringLiteral("0 Audio playback stopping"),
                                     QStringLiteral("0 Audio player state changed to StoppedState"),
                                     QStringLiteral("4 Audio playback stopped")}));
    QCOMPARE(stopped.count(), 1);
    QCOMPARE(player()->getReadPosition(), qint64(0));
    player()->stop();
    QCOMPARE(stopped.count(), 1);
    QVERIFY(takeLog().isEmpty());
}

void tst_AudioPlayer::deviceThatStopsByItself()
{
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->enter(QAudio::StoppedState, QAudio::FatalError);
    QCOMPARE(stopped.count(), 1);
    QVERIFY(!player()->isActive());
    source.reset(); // no longer of interest
    QCOMPARE(stopped.count(), 1);
}

void tst_AudioPlayer::idleIsNoStop()
{
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    QSignalSpy played(player(), &AudioPlayer::audioPlayed);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    output()->enter(QAudio::IdleState, QAudio::UnderrunError);
    output()->tick();
    QCOMPARE(played.takeFirst().first().toLongLong(), 0LL);
    QCOMPARE(player()->sampleRate(), 0);
    QCOMPARE(stopped.count(), 0);
    output()->enter(QAudio::ActiveState, QAudio::NoError);
    QVERIFY(!output()->pull(3840).isEmpty());
    output()->tick();
    QVERIFY(played.takeFirst().first().toLongLong() > 0);
    // And can be stopped.
    output()->enter(QAudio::IdleState, QAudio::UnderrunError);
    player()->stop();
    QCOMPARE(stopped.count(), 1);
    QCOMPARE(output()->state(), QAudio::StoppedState);
}

void tst_AudioPlayer::volume()
{
    QSignalSpy changed(player(), &AudioPlayer::volumeChanged);
    player()->setVolume(0.5);
    QCOMPARE(changed.count(), 1);
    player()->setVolume(0.53);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(player()->volume(), 0.53);
    player()->setVolume(0.5);
    player()->setVolume(0.549);
    QCOMPARE(changed.count(), 1);
    player()->setVolume(0.5);
    player()->setVolume(0.451);
    QCOMPARE(changed.count(), 1);
    player()->setVolume(0.5);
    player()->setVolume(0.56);
    QCOMPARE(changed.count(), 2);
    player()->setVolume(0.509);
    QCOMPARE(changed.count(), 3);
    player()->setVolume(-3);
    QCOMPARE(player()->volume(), 0.0);
    player()->setVolume(7);
    QCOMPARE(player()->volume(), 1.0);
    QCOMPARE(changed.count(), 5);
    player()->setVolume(8); // what is kept has not moved
    QCOMPARE(changed.count(), 5);

    player()->setVolume(0.25);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(output()->volume(), 0.25);
    player()->setProperty("volume", 0.75);
    QCOMPARE(output()->volume(), 0.75);
}

void tst_AudioPlayer::muteAndVolume()
{
    QSignalSpy changed(player(), &AudioPlayer::mutedChanged);
    player()->setMuted(false);
    QCOMPARE(changed.count(), 0);
    player()->setMuted(true);
    QCOMPARE(changed.count(), 1);
    player()->setVolume(0.5);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(output()->volume(), 0.0);
    player()->setVolume(0.25);
    QCOMPARE(output()->volume(), 0.0);
    player()->setMuted(false);
    QCOMPARE(output()->volume(), 0.25);
    player()->setProperty("muted", true);
    QCOMPARE(output()->volume(), 0.0);
    QCOMPARE(changed.count(), 3);
}

void tst_AudioPlayer::delaysAreTheReaders()
{
    player()->setProperty("delay", qint64(400000));
    player()->setProperty("maxDelay", qint64(600000));
    QCOMPARE(player()->delay(), qint64(400000));
    QCOMPARE(player()->maxDelay(), qint64(600000));
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    QCOMPARE(store().queries.front().timestamp, now - 400000);
}

void tst_AudioPlayer::waveformFile()
{
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("dump.pcm"));
    player()->setWaveformFile(QString());
    player()->setWaveformFile(path);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    QByteArray heard;
    for (int i = 0; i < 13; ++i)
        heard += output()->pull(3840);
    AudioPlayer::teardown(); // writes out and closes
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray dumped = file.readAll();
    // QIODevice reads ahead: the file has that much more.
    QVERIFY(dumped.size() >= heard.size() && dumped.size() < heard.size() + 16384);
    QCOMPARE(dumped.left(heard.size()), heard);
}

// What was read ahead when it stopped is in the file, whole blocks of QIODevice's, and nothing else that the
// output did not get; no byte of what it gets after that is missing.
void tst_AudioPlayer::waveformFileGoesOnThroughAStop()
{
    const int block = 16384;
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("dump.pcm"));
    player()->setWaveformFile(path);
    player()->setDevice(QStringLiteral("default"));
    QByteArray expected;
    for (const int pulls : {13, 1, 5}) {
        QVERIFY(player()->start(source.get(), 25));
        QByteArray heard;
        for (int i = 0; i < pulls; ++i) {
            heard += output()->pull(3840);
            store().pass(20000);
        }
        QCOMPARE(heard.size(), pulls * 3840);
        player()->stop();
        QVERIFY(output()->pull(3840).isEmpty());
        // The samples that follow in the source, up to a whole block.
        const int surplus = (block - heard.size() % block) % block;
        const auto *last = reinterpret_cast<const qint16 *>(heard.constData() + heard.size() - 4);
        const qint64 next = last[0]; // of the sample after that one, in the first channel
        for (int i = 0; i < surplus / 4; ++i) {
            for (int channel = 0; channel < 2; ++channel) {
                const qint16 sample = FakeAudioStore::sample(next + i, channel);
                heard.append(reinterpret_cast<const char *>(&sample), 2);
            }
        }
        expected += heard;
    }
    AudioPlayer::teardown();
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray dumped = file.readAll();
    QCOMPARE(dumped.size(), expected.size());
    QVERIFY(dumped == expected);
}

void tst_AudioPlayer::anotherWaveformFile()
{
    QTemporaryDir directory;
    const QStringList paths{directory.filePath(QStringLiteral("one")),
                            directory.filePath(QStringLiteral("two"))};
    QFile former(paths.first()); // is overwritten
    QVERIFY(former.open(QIODevice::WriteOnly));
    former.write(QByteArray(100000, 'x'));
    former.close();
    player()->setDevice(QStringLiteral("default"));
    QVector<QByteArray> heard;
    for (const QString &path : paths) {
        player()->setWaveformFile(path);
        QVERIFY(player()->start(source.get(), 25));
        heard.append(output()->pull(16384));
        QCOMPARE(heard.last().size(), 16384);
    }
    AudioPlayer::teardown();
    for (int i = 0; i < 2; ++i) {
        QFile file(paths[i]);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), heard[i]);
    }
}

void tst_AudioPlayer::waveformFileThatCannotBeOpened()
{
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("dump.pcm"));
    player()->setWaveformFile(path);
    player()->setWaveformFile(directory.filePath(QStringLiteral("no/such/folder")));
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    AudioPlayer::teardown();
    QCOMPARE(QFileInfo(path).size(), qint64(0)); // the failure ended the dump
}

void tst_AudioPlayer::startThroughTheMetaObject()
{
    player()->setDevice(QStringLiteral("default"));
    bool result = false;
    QVERIFY(QMetaObject::invokeMethod(player(), "start", Q_RETURN_ARG(bool, result),
                                      Q_ARG(MediaSource *, source.get()), Q_ARG(double, 50)));
    QVERIFY(result);
    QCOMPARE(output()->notifyInterval(), 20);
    QVERIFY(QMetaType::type("MediaSource*") != QMetaType::UnknownType);
}

QTEST_GUILESS_MAIN(tst_AudioPlayer)
#include "tst_audioplayer.moc"
