#include "audioreader_testing.h"

#include "audio/audiologging.h"

#include <QtCore/QBuffer>
#include <QtTest/QtTest>

#include <cmath>

namespace {

QStringList *traced = nullptr;

void collectMessages(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (traced)
        traced->append(
            QStringLiteral("%1 %2: %3").arg(int(type)).arg(QLatin1String(context.category), message));
}

// Collects what is logged while it lives, of the given categories down to debug.
class Messages
{
public:
    explicit Messages(const char *rules = "")
    {
        QLoggingCategory::setFilterRules(QString::fromLatin1(rules));
        traced = &list;
        previous = qInstallMessageHandler(collectMessages);
    }
    ~Messages()
    {
        qInstallMessageHandler(previous);
        traced = nullptr;
        QLoggingCategory::setFilterRules(QString());
    }

    QStringList list;

private:
    QtMessageHandler previous;
};

} // namespace

class tst_AudioReader : public AudioReaderTest
{
    Q_OBJECT

private Q_SLOTS:
    void isASequentialDeviceThatOnlyPulls();
    void readsOfNothingCallNothing();
    void firstReadStartsADelayBehindTheNewest_data();
    void firstReadStartsADelayBehindTheNewest();
    void positionAdvancesByWhatWasObtained();
    void positionThatFellTooFarBehindJumps();
    void positionAheadIsLeftAlone();
    void delaysTakeEffectAtTheNextRead();
    void sourceWithoutAudioPlaysSilenceOrFails();
    void audioThatComesLaterIsPlayed();
    void audioThatGoesAway();
    void audioThatGoesAwayDuringARead();
    void equalFormatsPassThroughUnchanged();
    void passThroughRepeatsSamplesOnlyWhereMicrosecondsAreCut_data();
    void passThroughRepeatsSamplesOnlyWhereMicrosecondsAreCut();
    void shortSourceIsFilledWithSilence();
    void reserveIsWhatTheLastReadLeft_data();
    void reserveIsWhatTheLastReadLeft();
    void waveformGetsWhatTheDeviceGets();
    void channelsStayInPlace_data();
    void channelsStayInPlace();
    void sizesThatEndWithinAFrame();
    void closeForgetsTheSource();
    void resetTimerAnchorsAnew();
    void checkDelta();
    void categories();
    void messages();
};

void tst_AudioReader::isASequentialDeviceThatOnlyPulls()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    QCOMPARE(reader->openMode(), QIODevice::OpenMode(QIODevice::ReadOnly));
    QVERIFY(reader->isSequential());
    QCOMPARE(reader->bytesAvailable(), qint64(0));
    QVERIFY(!reader->seek(0));
    QCOMPARE(reader->writeData("abcd", 4), qint64(0));
    QCOMPARE(reader->getDelay(), qint64(200000));
    QCOMPARE(reader->getMaxDelay(), qint64(300000));
    QCOMPARE(reader->metaObject()->className(), "AudioReader");
    QCOMPARE(reader->metaObject()->methodCount(), QIODevice::staticMetaObject.methodCount());
}

void tst_AudioReader::readsOfNothingCallNothing()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    const int statusQueries = store().statusQueries;
    char byte = 0x55;
    QCOMPARE(reader->readData(&byte, 0), qint64(0));
    QCOMPARE(byte, char(0x55));
    QCOMPARE(store().statusQueries, statusQueries);
    QVERIFY(store().queries.empty());
    // Nor does it look whether there is anything to read from.
    store().hasAudio = false;
    QVERIFY(source->open());
    QCOMPARE(reader->readData(&byte, 0), qint64(0));
    read(4, -1);
    reader->close();
    QCOMPARE(reader->readData(&byte, 0), qint64(0));
}

void tst_AudioReader::firstReadStartsADelayBehindTheNewest_data()
{
    QTest::addColumn<QAudioFormat>("output");
    QTest::addColumn<int>("size");
    QTest::addColumn<qint64>("distance");

    QTest::newRow("short request: the delay") << pcm(48000, 2) << 3840 << qint64(200000);
    QTest::newRow("200 ms: the same") << pcm(48000, 2) << 38400 << qint64(200000);
    QTest::newRow("long request: its duration") << pcm(48000, 2) << 48000 << qint64(250000);
    // The device's bytes, measured in the source's format: 250 ms of 48 kHz stereo, not 500 ms of mono.
    QTest::newRow("measured in the source's format") << pcm(48000, 1) << 48000 << qint64(250000);
    QTest::newRow("resampled, measured in the source's format") << pcm(96000, 2) << 48000 << qint64(250000);
}

void tst_AudioReader::firstReadStartsADelayBehindTheNewest()
{
    QFETCH(QAudioFormat, output);
    QFETCH(int, size);
    QFETCH(qint64, distance);
    QVERIFY(reader->open(source.get(), output, true));
    QCOMPARE(reader->getFirstTimestamp(), qint64(0));
    read(size);
    QCOMPARE(store().queries.front().timestamp, now - distance);
    QCOMPARE(store().queries.front().stream, 3);
    QCOMPARE(reader->getFirstTimestamp(), now - distance);
}

void tst_AudioReader::positionAdvancesByWhatWasObtained()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    read(3840); // 960 frames, 20 ms
    QCOMPARE(reader->getReadPosition(), now - 200000 + 20000);
    store().deliverAtMost = 480;
    read(3840);
    QCOMPARE(lastRequest(), now - 180000);
    QCOMPARE(reader->getReadPosition(), now - 200000 + 30000);
    store().deliverAtMost = 0;
    read(3840);
    QCOMPARE(reader->getReadPosition(), now - 200000 + 30000);
    QCOMPARE(reader->getFirstTimestamp(), now - 200000);

    // 1024 frames last 21333.3 us. The position is a timestamp: nothing of the third is kept.
    reader->resetTimer();
    store().deliverAtMost = -1;
    for (int i = 0; i < 3; ++i)
        read(4096);
    QCOMPARE(reader->getReadPosition(), now - 200000 + 3 * 21333);
}

void tst_AudioReader::positionThatFellTooFarBehindJumps()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    read(3840);
    const qint64 position = reader->getReadPosition(); // 180 ms behind
    store().pass(120000);
    read(3840);
    QCOMPARE(lastRequest(), position); // exactly 300000 behind
    QCOMPARE(reader->getGaps().jumps, 0);

    store().pass(20001);
    read(3840); // 300001 behind
    QCOMPARE(lastRequest(), store().newest - 200000);

    store().pass(1000000);
    read(48000); // a request longer than the delay
    QCOMPARE(lastRequest(), store().newest - 250000);
    QCOMPARE(reader->getGaps().jumps, 2);
}

void tst_AudioReader::positionAheadIsLeftAlone()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    read(3840);
    const qint64 position = reader->getReadPosition();
    store().pass(-500000); // the writer's clock was set back
    const QByteArray silence = read(3840);
    QCOMPARE(lastRequest(), position);
    QCOMPARE(silence, QByteArray(3840, 0));
    store().pass(500000);
    QVERIFY(read(3840) != QByteArray(3840, 0));
    QCOMPARE(lastRequest(), position);
}

void tst_AudioReader::delaysTakeEffectAtTheNextRead()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    reader->setDelay(400000);
    reader->setMaxDelay(500000);
    read(3840);
    QCOMPARE(lastRequest(), now - 400000);
    store().pass(120000);
    read(3840); // 500 ms behind
    QCOMPARE(lastRequest(), now - 380000);
    reader->setDelay(50000);
    reader->setMaxDelay(100000);
    read(3840);
    QCOMPARE(lastRequest(), store().newest - 50000);
}

void tst_AudioReader::sourceWithoutAudioPlaysSilenceOrFails()
{
    store().hasAudio = false;
    QVERIFY(source->open());
    QVERIFY(!reader->open(source.get(), pcm(48000, 2), true));
    QVERIFY(!reader->isOpen());

    QVERIFY(reader->open(source.get(), pcm(48000, 2), false));
    QCOMPARE(read(3840), QByteArray(3840, 0));
    QCOMPARE(reader->getGaps().silence, qint64(20000));
    QCOMPARE(reader->getGaps().episodes, 1);
    QCOMPARE(reader->getFirstTimestamp(), qint64(0));
    QVERIFY(store().queries.empty());
}

void tst_AudioReader::audioThatComesLaterIsPlayed()
{
    store().hasAudio = false;
    QVERIFY(source->open());
    QVERIFY(reader->open(source.get(), pcm(48000, 2), false));
    read(3840);
    store().hasAudio = true;
    QVERIFY(source->open());
    QVERIFY(read(3840) != QByteArray(3840, 0));
    QCOMPARE(reader->getFirstTimestamp(), now - 200000);
}

void tst_AudioReader::audioThatGoesAway()
{
    for (const bool requireAudio : {true, false}) {
        QVERIFY(reader->open(source.get(), pcm(48000, 2), requireAudio));
        read(3840);
        store().hasAudio = false;
        QVERIFY(source->open());
        const QByteArray data = read(3840, requireAudio ? -1 : 3840);
        QCOMPARE(data, QByteArray(3840, requireAudio ? 0x55 : 0));
        store().hasAudio = true;
        QVERIFY(source->open());
        reader->close();
    }
}

void tst_AudioReader::audioThatGoesAwayDuringARead()
{
    for (const bool requireAudio : {true, false}) {
        QVERIFY(reader->open(source.get(), pcm(44100, 2), requireAudio));
        store().deliverAtMost = 100;
        fakeresampler::onConvert = [this] {
            store().hasAudio = false;
            QVERIFY(source->open());
        };
        const QByteArray data = read(3840, requireAudio ? -1 : 3840);
        QVERIFY(!fakeresampler::onConvert);
        QCOMPARE(data.right(3000), QByteArray(3000, requireAudio ? 0x55 : 0));
        store().hasAudio = true;
        QVERIFY(source->open());
        reader->close();
    }
}

void tst_AudioReader::equalFormatsPassThroughUnchanged()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    QCOMPARE(fakeresampler::live, 0);
    const QByteArray data = read(3840);
    const auto *samples = reinterpret_cast<const qint16 *>(data.constData());
    const qint64 first = store().indexOf(now - 200000);
    for (int i = 0; i < 960; ++i) {
        QCOMPARE(samples[2 * i], FakeAudioStore::sample(first + i, 0));
        QCOMPARE(samples[2 * i + 1], FakeAudioStore::sample(first + i, 1));
    }
}

void tst_AudioReader::passThroughRepeatsSamplesOnlyWhereMicrosecondsAreCut_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("frames");
    QTest::newRow("48 kHz, 16384 bytes") << 48000 << 4096;
    QTest::newRow("44.1 kHz, 16384 bytes") << 44100 << 4096;
    QTest::newRow("44.1 kHz, odd sizes") << 44100 << 997;
    QTest::newRow("32 kHz") << 32000 << 1023;
    QTest::newRow("22.05 kHz") << 22050 << 1024;
}

// Ten minutes, sample by sample. A read of n frames moves the position by n / rate, cut to microseconds; what
// is cut adds up, and whenever it has come to a sample, the last one of a read is the first one of the next
// too. Nothing else may happen to the samples.
void tst_AudioReader::passThroughRepeatsSamplesOnlyWhereMicrosecondsAreCut()
{
    QFETCH(int, rate);
    QFETCH(int, frames);
    store().sampleRate = rate;
    store().channels = 1;
    store().isRecording = false;
    QVERIFY(source->open());
    QVERIFY(reader->open(source.get(), pcm(rate, 1), true));
    reader->setMaxDelay(1000000); // what is cut adds to the distance too: no jump in ten minutes
    QVector<qint16> samples(frames);
    qint64 index = -1;
    int reads = 0;
    QVector<int> repeats; // the reads that begin with one
    for (; qint64(reads) * frames < 600 * rate; ++reads) {
        QCOMPARE(reader->readData(reinterpret_cast<char *>(samples.data()), 2 * frames), qint64(2 * frames));
        if (index < 0)
            index = store().indexOf(reader->getFirstTimestamp());
        if (samples.first() == FakeAudioStore::sample(index - 1, 0)) {
            repeats.append(reads);
            --index;
        }
        for (const qint16 sample : qAsConst(samples)) {
            if (sample != FakeAudioStore::sample(index, 0))
                QFAIL(qPrintable(QStringLiteral("seam in read %1").arg(reads)));
            ++index;
        }
        store().newest = now + qint64(reads + 1) * frames * 1000000 / rate;
        store().oldest = store().newest - 2000000;
    }

    const double lostPerRead = static_cast<double>(qint64(frames) * 1000000 % rate) / 1e6; // samples
    const double expected = lostPerRead * (reads - 1);
    QVERIFY2(std::abs(repeats.size() - expected) <= 1, qPrintable(QString::number(repeats.size())));
    for (int i = 1; i < repeats.size(); ++i)
        QVERIFY(std::abs(repeats[i] - repeats[i - 1] - 1 / lostPerRead) < 1);
}

void tst_AudioReader::shortSourceIsFilledWithSilence()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    QCOMPARE(reader->getGaps().silence, qint64(0));
    QCOMPARE(reader->getGaps().episodes, 0);
    store().deliverAtMost = 480;
    QByteArray data = read(3840);
    QVERIFY(!data.left(1920).contains(QByteArray(4, 0)));
    QCOMPARE(data.mid(1920), QByteArray(1920, 0));
    QCOMPARE(reader->getGaps().silence, qint64(10000));
    QCOMPARE(reader->getGaps().episodes, 1);
    read(3840); // still the same lack
    QCOMPARE(reader->getGaps().silence, qint64(20000));
    QCOMPARE(reader->getGaps().episodes, 1);
    read(1920);
    read(3840);
    QCOMPARE(reader->getGaps().silence, qint64(30000));
    QCOMPARE(reader->getGaps().episodes, 2);
    store().deliverAtMost = 959;
    QCOMPARE(read(3840).right(4), QByteArray(4, 0)); // a single frame too
}

void tst_AudioReader::reserveIsWhatTheLastReadLeft_data()
{
    QTest::addColumn<int>("rate");
    QTest::newRow("as it is") << 48000;
    QTest::newRow("resampled") << 44100;
}

void tst_AudioReader::reserveIsWhatTheLastReadLeft()
{
    QFETCH(int, rate);
    QVERIFY(reader->open(source.get(), pcm(rate, 2), false));
    QCOMPARE(reader->getReserve(), qint64(-1));
    read(rate / 50 * 4);
    QCOMPARE(reader->getReserve(), now - reader->getReadPosition());
    QVERIFY(reader->getReserve() > 100000);
    store().newest += 20000; // that is not seen before the next read
    QCOMPARE(reader->getReserve(), now - reader->getReadPosition());
    read(rate / 50 * 4);
    QCOMPARE(reader->getReserve(), now + 20000 - reader->getReadPosition());
    read(rate / 4 * 4); // more than there is
    QVERIFY(reader->getReserve() >= 0);
    QVERIFY(reader->getReserve() < 21); // a sample, cut
    QVERIFY(reader->getGaps().isSilent);
    store().hasAudio = false;
    QVERIFY(source->open());
    read(rate / 50 * 4);
    QCOMPARE(reader->getReserve(), qint64(-1));
    reader->close();
    store().hasAudio = true;
    QVERIFY(source->open());
    QVERIFY(reader->open(source.get(), pcm(rate, 2), true));
    QCOMPARE(reader->getReserve(), qint64(-1));
}

void tst_AudioReader::waveformGetsWhatTheDeviceGets()
{
    QBuffer waveform;
    QVERIFY(waveform.open(QIODevice::WriteOnly));
    store().hasAudio = false; // silence at the beginning too
    QVERIFY(source->open());
    QVERIFY(reader->open(source.get(), pcm(44100, 1), false));
    reader->setWaveformOutput(&waveform);
    QByteArray expected = read(1000);
    store().hasAudio = true;
    QVERIFY(source->open());
    expected += read(2000);
    store().deliverAtMost = 3;
    expected += read(3000);
    store().hasAudio = false;
    QVERIFY(source->open());
    expected += read(500);
    QCOMPARE(waveform.data(), expected);
    QCOMPARE(expected.right(500), QByteArray(500, 0));

    reader->setWaveformOutput(nullptr);
    read(100);
    QCOMPARE(waveform.data().size(), expected.size());
    QVERIFY(waveform.isOpen());

    // What fails leaves nothing in the file, nor a complaint of it.
    reader->setWaveformOutput(&waveform);
    store().hasAudio = true;
    QVERIFY(source->open());
    fakeresampler::convertsUntilFailure = 0;
    {
        const Messages log;
        read(500, -1);
        QCOMPARE(log.list, QStringList{QStringLiteral("2 zevqt.audio: Error while converting audio format")});
    }
    QCOMPARE(waveform.data().size(), expected.size());
    reader->close();
    store().hasAudio = false;
    QVERIFY(source->open());
    QVERIFY(!reader->open(source.get(), pcm(44100, 1), true));
    QCOMPARE(waveform.data().size(), expected.size());
}

void tst_AudioReader::channelsStayInPlace_data()
{
    QTest::addColumn<int>("channels");
    for (int channels = 1; channels <= 8; ++channels)
        QTest::addRow("%d", channels) << channels;
}

// What an output gets, which reads through QIODevice's buffer; a frame of some of these does not divide that.
void tst_AudioReader::channelsStayInPlace()
{
    QFETCH(int, channels);
    store().channels = channels;
    QVERIFY(source->open());
    QVERIFY(reader->open(source.get(), pcm(48000, channels), true));
    reader->setDelay(1900000);
    reader->setMaxDelay(1900000);
    const int size = 2 * channels * 960;
    QByteArray all;
    for (int i = 0; i < 40; ++i)
        all += static_cast<QIODevice *>(reader.get())->read(size);
    QCOMPARE(all.size(), 40 * size);
    const auto *samples = reinterpret_cast<const qint16 *>(all.constData());
    for (int i = 0; i < all.size() / 2; ++i) {
        const qint64 index = samples[i / channels * channels] - 1; // of the frame's first channel
        QCOMPARE(samples[i], FakeAudioStore::sample(index, i % channels));
    }
}

// Only whole frames are asked for, whatever the size; what is silent is counted from the end.
void tst_AudioReader::sizesThatEndWithinAFrame()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    QByteArray data = read(1001);
    QCOMPARE(store().queries.size(), size_t(1));
    QCOMPARE(store().queries.back().frames, 250ul);
    QCOMPARE(data.at(1000), char(0x55));
    store().deliverAtMost = 100;
    data = read(1001);
    QCOMPARE(data.mid(401), QByteArray(600, 0));
    QCOMPARE(data.at(400), char(0x55));
    store().deliverAtMost = -1;
    read(3);
    QCOMPARE(store().queries.back().frames, 0ul);
    reader->close();
    QVERIFY(reader->open(source.get(), pcm(44100, 2), true));
    store().queries.clear();
    QCOMPARE(read(3), QByteArray(3, 0x55));
    QVERIFY(store().queries.empty());
}

void tst_AudioReader::closeForgetsTheSource()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    QCOMPARE(reader->getSource(), source.get());
    read(3840);
    reader->close();
    QVERIFY(!reader->isOpen());
    QCOMPARE(reader->getSource(), nullptr);
    read(3840, -1);
    store().pass(5000);
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    QCOMPARE(reader->getFirstTimestamp(), qint64(0));
    QCOMPARE(reader->getReadPosition(), qint64(0));
    reader->setMaxDelay(2 * now); // nothing is too far behind: only a position that is not anchored is set
    read(3840);
    QCOMPARE(lastRequest(), store().newest - 200000);
}

void tst_AudioReader::resetTimerAnchorsAnew()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    read(3840);
    reader->resetTimer();
    QCOMPARE(reader->getReadPosition(), qint64(0));
    QCOMPARE(reader->getFirstTimestamp(), qint64(0));
    store().pass(10000);
    reader->setMaxDelay(2 * now);
    read(3840);
    QCOMPARE(reader->getFirstTimestamp(), store().newest - 200000);
}

void tst_AudioReader::checkDelta()
{
    Messages log("zevqt.audio-timings.debug=true");
    QVERIFY(!reader->check_delta());
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    QVERIFY(!reader->check_delta());
    store().deliverAtMost = 0;
    read(3840); // a position, but no sample yet
    QVERIFY(!reader->check_delta());
    store().deliverAtMost = -1;
    reader->resetTimer();
    // A minute of audio at once: the stream is ahead of the wall by nearly that.
    for (int i = 0; i < 60; ++i) {
        read(192000);
        store().pass(1000000);
    }
    log.list.clear();
    reader->setMaxDelay(3600000000);
    QVERIFY(!reader->check_delta());
    QVERIFY(log.list.isEmpty());
    reader->setMaxDelay(300000);
    QVERIFY(reader->check_delta());
    QCOMPARE(log.list.size(), 1);
    const QString start = QStringLiteral("0 zevqt.audio-timings: check_delta: %1 %2 60000000 ")
                              .arg(reader->getFirstTimestamp())
                              .arg(reader->getReadPosition());
    QVERIFY2(log.list.first().startsWith(start), qPrintable(log.list.first()));
    const QStringList numbers = log.list.first().mid(start.size()).split(QLatin1Char(' '));
    QCOMPARE(numbers.size(), 2);
    QCOMPARE(numbers.at(0).toLongLong() - 60000000, numbers.at(1).toLongLong());

    // And behind it, once more than a millisecond of audio has taken the wall six.
    reader->resetTimer();
    read(4 * 48);
    reader->setMaxDelay(5000);
    QTRY_VERIFY(reader->check_delta());
    QVERIFY(log.list.last().section(QLatin1Char(' '), -1).toLongLong() > 5000);
}

void tst_AudioReader::categories()
{
    QCOMPARE(audio().categoryName(), "zevqt.audio");
    QCOMPARE(audioTimings().categoryName(), "zevqt.audio-timings");
    for (const QLoggingCategory *category : {&audio(), &audioTimings()}) {
        QVERIFY(!category->isDebugEnabled());
        QVERIFY(!category->isInfoEnabled());
        QVERIFY(category->isWarningEnabled());
        QVERIFY(category->isCriticalEnabled());
    }
}

void tst_AudioReader::messages()
{
    Messages log("zevqt.audio.debug=true\nzevqt.audio-timings.debug=true");
    store().sampleRate = 48000;
    QVERIFY(reader->open(source.get(), pcm(44100, 1, 32, QAudioFormat::Float), true));
    QCOMPARE(log.list, QStringList{QStringLiteral(
                           "0 zevqt.audio: Create new resampler context: 48000,2,1-->44100,1,3")});
    log.list.clear();
    read(4 * 100);
    QCOMPARE(log.list,
             QStringList{QStringLiteral("0 zevqt.audio-timings: Audio reader got 1024/1024 samples at "
                                        "999800000 (-200000)")});
    log.list.clear();
    store().deliverAtMost = 0;
    read(4 * 1000);
    QCOMPARE(log.list, QStringList{QStringLiteral("0 zevqt.audio-timings: Audio reader got 0/1024 samples at "
                                                  "999821333 (-178667)")});
}

QTEST_GUILESS_MAIN(tst_AudioReader)
#include "tst_audioreader.moc"
