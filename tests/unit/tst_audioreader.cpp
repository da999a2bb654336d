#include "fake_audiostore.h"

#include "audio/audiologging.h"
#include "audio/resampleroptions.h"

#include <zevqt-mm/audioreader.h>
#include <zevqt-mm/mediasource.h>

#include <QtCore/QBuffer>
#include <QtTest/QtTest>

#include <cmath>
#include <functional>
#include <utility>

extern "C" {
#include <libswresample/swresample.h>
}

namespace {

// The resampler's failures cannot be had from outside: the linker puts the __wrap_ functions below in the
// place of the library's, and they fail on demand.
int convertsUntilFailure = -1; // -1: none
int initsUntilFailure = -1;
int liveResamplers = 0;
std::function<void()> onConvert; // if any, called once before a conversion

bool failsNow(int *countdown)
{
    return *countdown >= 0 && (*countdown)-- == 0;
}

} // namespace

extern "C" {

int __real_swr_convert(SwrContext *, uint8_t **, int, const uint8_t **, int);
int __real_swr_init(SwrContext *);
SwrContext *__real_swr_alloc();
void __real_swr_free(SwrContext **);

int __wrap_swr_convert(SwrContext *context, uint8_t **out, int outCount, const uint8_t **in, int inCount)
{
    if (onConvert)
        std::exchange(onConvert, nullptr)();
    return failsNow(&convertsUntilFailure) ? -1 : __real_swr_convert(context, out, outCount, in, inCount);
}

int __wrap_swr_init(SwrContext *context)
{
    return failsNow(&initsUntilFailure) ? -1 : __real_swr_init(context);
}

SwrContext *__wrap_swr_alloc()
{
    ++liveResamplers;
    return __real_swr_alloc();
}

void __wrap_swr_free(SwrContext **context)
{
    if (*context)
        --liveResamplers;
    __real_swr_free(context);
}

} // extern "C"

namespace {

const qint64 now = 1000000000; // newest audio of a fresh store

QAudioFormat pcm(int rate, int channels, int bits = 16,
                 QAudioFormat::SampleType type = QAudioFormat::SignedInt)
{
    QAudioFormat format;
    format.setCodec(QStringLiteral("audio/pcm"));
    format.setSampleRate(rate);
    format.setChannelCount(channels);
    format.setSampleSize(bits);
    format.setSampleType(type);
    format.setByteOrder(QAudioFormat::LittleEndian);
    return format;
}

FakeAudioStore &store()
{
    return FakeAudioStore::instance();
}

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

class tst_AudioReader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

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
    void resamplingTakesFullGrabsAndKeepsTheSurplus();
    void resamplingThatRunsDryDrainsAndCarriesOn();
    void resamplesEveryFormat_data();
    void resamplesEveryFormat();
    void resamplingIsSeamless();
    void newFormatMidStreamAnchorsAnew();
    void wideningStoreDoesNotOverrunTheBuffer();
    void storeThatWidensDuringARead();
    void formatsThatCannotBeConverted_data();
    void formatsThatCannotBeConverted();
    void resamplerThatCannotBeBuiltMidStream();
    void failingConversion();
    void failingDrain();
    void failingReset();
    void waveformGetsWhatTheDeviceGets();
    void channelsStayInPlace_data();
    void channelsStayInPlace();
    void sizesThatEndWithinAFrame();
    void closeForgetsTheSource();
    void resetTimerAnchorsAnew();
    void checkDelta();
    void categories();
    void messages();

private:
    QByteArray read(int size, qint64 expected = -2);
    qint64 lastRequest() const { return store().queries.back().timestamp; }

    std::unique_ptr<MediaSource> source;
    std::unique_ptr<AudioReader> reader;
};

void tst_AudioReader::init()
{
    store().reset();
    convertsUntilFailure = -1;
    initsUntilFailure = -1;
    source = std::make_unique<MediaSource>(QStringLiteral("mic"), 100);
    QVERIFY(source->open());
    reader = std::make_unique<AudioReader>();
}

void tst_AudioReader::cleanup()
{
    reader.reset();
    source.reset();
    QCOMPARE(store().openHandles, 0);
    QCOMPARE(liveResamplers, 0);
}

// Reads into a buffer of 0x55; what is expected is a full read unless said otherwise.
QByteArray tst_AudioReader::read(int size, qint64 expected)
{
    QByteArray data(size, 0x55);
    const qint64 result = reader->readData(data.data(), size);
    if (result != (expected == -2 ? size : expected))
        QTest::qFail(qPrintable(QStringLiteral("read returned %1").arg(result)), __FILE__, __LINE__);
    return data;
}

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
        onConvert = [this] {
            store().hasAudio = false;
            QVERIFY(source->open());
        };
        const QByteArray data = read(3840, requireAudio ? -1 : 3840);
        QVERIFY(!onConvert);
        QCOMPARE(data.right(3000), QByteArray(3000, requireAudio ? 0x55 : 0));
        store().hasAudio = true;
        QVERIFY(source->open());
        reader->close();
    }
}

void tst_AudioReader::equalFormatsPassThroughUnchanged()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    QCOMPARE(liveResamplers, 0);
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

void tst_AudioReader::resamplingTakesFullGrabsAndKeepsTheSurplus()
{
    QVERIFY(reader->open(source.get(), pcm(24000, 2), true));
    QCOMPARE(liveResamplers, 1);
    read(400); // 100 frames, from 200 of the source
    QCOMPARE(store().queries.size(), size_t(1));
    QCOMPARE(store().queries.back().frames, 1024ul);
    QCOMPARE(store().queries.back().stream, 3);
    QCOMPARE(reader->getReadPosition(), now - 200000 + 21333);
    read(400);
    QCOMPARE(store().queries.size(), size_t(2)); // always a request, whatever is kept
    QCOMPARE(lastRequest(), now - 200000 + 21333);
    QCOMPARE(reader->getReadPosition(), now - 200000 + 42666);

    read(8000); // 2000 frames, 4000 of the source, of which the resampler has some 1600
    QVERIFY(store().queries.size() > 3);
    for (const FakeAudioStore::Query &query : store().queries)
        QCOMPARE(query.frames, 1024ul);
}

void tst_AudioReader::resamplingThatRunsDryDrainsAndCarriesOn()
{
    QVERIFY(reader->open(source.get(), pcm(24000, 1), true));
    store().deliverAtMost = 500;
    QByteArray data = read(1200); // 600 frames of which 250 can be had
    QVERIFY(data.right(2 * 340) == QByteArray(2 * 340, 0));
    QVERIFY(data.left(2 * 200).count(char(0)) < 40);
    QVERIFY(data.mid(2 * 236, 2 * 10).count(char(0)) < 5); // what was drained is kept
    // The drained resampler starts afresh: nothing of before is left in it.
    store().deliverAtMost = 0;
    QCOMPARE(read(1200), QByteArray(1200, 0));
    store().deliverAtMost = -1;
    data = read(1200);
    QVERIFY(data.right(2 * 200).count(char(0)) < 40);
}

void tst_AudioReader::resamplesEveryFormat_data()
{
    QTest::addColumn<int>("channels");
    QTest::addColumn<QAudioFormat>("output");
    QTest::newRow("8 bit") << 2 << pcm(48000, 2, 8, QAudioFormat::UnSignedInt);
    QTest::newRow("32 bit") << 2 << pcm(48000, 2, 32);
    QTest::newRow("float") << 2 << pcm(48000, 2, 32, QAudioFormat::Float);
    QTest::newRow("double") << 2 << pcm(48000, 2, 64, QAudioFormat::Float);
    QTest::newRow("stereo to mono") << 2 << pcm(48000, 1);
    QTest::newRow("mono to stereo") << 1 << pcm(44100, 2);
    QTest::newRow("six channels, another rate") << 6 << pcm(44100, 6);
    QTest::newRow("six channels to stereo") << 6 << pcm(48000, 2);
    QTest::newRow("three channels, another size") << 3 << pcm(48000, 3, 32);
    QTest::newRow("eight channels to mono") << 8 << pcm(8000, 1);
}

void tst_AudioReader::resamplesEveryFormat()
{
    QFETCH(int, channels);
    QFETCH(QAudioFormat, output);
    store().channels = channels;
    QVERIFY(source->open());
    QVERIFY(reader->open(source.get(), output, true));
    QCOMPARE(liveResamplers, 1);
    const int size = output.bytesForFrames(800);
    read(size);
    const QByteArray data = read(size);
    QVERIFY(data != QByteArray(size, 0));
    QVERIFY(data != QByteArray(size, 0x55));
}

// Twenty seconds, against the same samples converted in one go: grabs of 1024 frames, each 21333 us after the
// one before.
void tst_AudioReader::resamplingIsSeamless()
{
    store().channels = 1;
    QVERIFY(source->open());
    QVERIFY(reader->open(source.get(), pcm(44100, 1), true));
    QByteArray data;
    const int frames = 4096;
    const int blocks = 20 * 44100 / frames;
    for (int block = 1; block <= blocks; ++block) {
        data += read(2 * frames);
        store().newest = now + qint64(block) * frames * 1000000 / 44100;
    }

    QVector<qint16> samples;
    const int grabs = 48000 * 20 / 1024 + 2;
    for (int grab = 0; grab < grabs; ++grab) {
        const qint64 first = store().indexOf(now - 200000 + grab * 21333);
        for (int i = 0; i < 1024; ++i)
            samples.append(FakeAudioStore::sample(first + i, 0));
    }
    SwrContext *context = swr_alloc();
    setResamplerOptions(context, {1, AV_SAMPLE_FMT_S16, 48000}, {1, AV_SAMPLE_FMT_S16, 44100});
    QVERIFY(swr_init(context) >= 0);
    QByteArray expected(2 * frames * blocks, 0);
    auto *out = reinterpret_cast<uint8_t *>(expected.data());
    const auto *in = reinterpret_cast<const uint8_t *>(samples.constData());
    QCOMPARE(swr_convert(context, &out, frames * blocks, &in, samples.size()), frames * blocks);
    swr_free(&context);
    QVERIFY(data == expected);
}

void tst_AudioReader::newFormatMidStreamAnchorsAnew()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    read(3840);
    read(3840);
    QCOMPARE(liveResamplers, 0);
    store().sampleRate = 44100;
    QVERIFY(source->open());
    store().pass(50000);
    store().queries.clear();
    QVERIFY(read(3840) != QByteArray(3840, 0));
    QCOMPARE(liveResamplers, 1);
    QCOMPARE(store().queries.front().timestamp, store().newest - 200000);

    // More channels: the staging buffer has room for them by the time they are asked for.
    store().channels = 8;
    QVERIFY(source->open());
    QVERIFY(read(3840) != QByteArray(3840, 0));
    store().sampleRate = 48000;
    store().channels = 2;
    QVERIFY(source->open());
    read(3840);
    QCOMPARE(liveResamplers, 0);
}

// A tick thread that asks the same source for audio notices the new format first; the reader has asked for
// the format already, and its buffer is as wide as that said.
void tst_AudioReader::wideningStoreDoesNotOverrunTheBuffer()
{
    QCOMPARE(source->getAudioFormat().channelCount(), 2);
    store().channels = 8;
    QVERIFY(source->open());
    source->requestAudio();
    store().queries.clear();
    QVector<short> buffer(2 * 100, 0x55);
    QCOMPARE(source->grabAudio(3, 100, buffer.data(), now - 200000), 0LL);
    QVERIFY(store().queries.empty());
    QCOMPARE(buffer, QVector<short>(2 * 100, 0x55));
}

// The same from within a read: what the source delivers from there on is for the next read, with a resampler
// and a buffer of its own.
void tst_AudioReader::storeThatWidensDuringARead()
{
    QVERIFY(reader->open(source.get(), pcm(44100, 2), true));
    onConvert = [this] {
        store().channels = 8;
        QVERIFY(source->open());
        source->requestAudio();
        store().queries.clear();
    };
    const QByteArray data = read(16000); // four grabs
    QVERIFY(!onConvert);
    QVERIFY(store().queries.empty());
    QVERIFY(data.left(3000) != QByteArray(3000, 0));
    QCOMPARE(data.right(8000), QByteArray(8000, 0));
    QVERIFY(read(16000).right(8000) != QByteArray(8000, 0));
    QCOMPARE(store().queries.front().timestamp, now - 200000); // anchored anew
}

void tst_AudioReader::formatsThatCannotBeConverted_data()
{
    QTest::addColumn<QAudioFormat>("output");
    QTest::newRow("24 bits") << pcm(48000, 2, 24);
    QTest::newRow("signed 8 bits") << pcm(48000, 2, 8);
    QTest::newRow("unsigned 16 bits") << pcm(48000, 2, 16, QAudioFormat::UnSignedInt);
    QTest::newRow("unknown type") << pcm(48000, 2, 16, QAudioFormat::Unknown);
    QTest::newRow("float of 16 bits") << pcm(48000, 2, 16, QAudioFormat::Float);
    QTest::newRow("no rate") << pcm(0, 2);
}

void tst_AudioReader::formatsThatCannotBeConverted()
{
    QFETCH(QAudioFormat, output);
    QTest::ignoreMessage(QtCriticalMsg, "Error in creating resampler");
    QVERIFY(!reader->open(source.get(), output, true));
    QVERIFY(!reader->isOpen());
    QCOMPARE(liveResamplers, 0);
}

void tst_AudioReader::resamplerThatCannotBeBuiltMidStream()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 1), true));
    read(3840);
    store().sampleRate = 44100;
    QVERIFY(source->open());
    initsUntilFailure = 0;
    QTest::ignoreMessage(QtCriticalMsg, "Error in creating resampler");
    QCOMPARE(read(3840, -1), QByteArray(3840, 0x55));

    // Back to the former format: its resampler is gone, and stereo must not be copied into a mono buffer.
    store().sampleRate = 48000;
    QVERIFY(source->open());
    read(3840);
    QCOMPARE(liveResamplers, 1);
}

void tst_AudioReader::failingConversion()
{
    QVERIFY(reader->open(source.get(), pcm(44100, 2), true));
    convertsUntilFailure = 0;
    QTest::ignoreMessage(QtCriticalMsg, "Error while converting audio format");
    read(3840, -1);
    read(3840);
}

void tst_AudioReader::failingDrain()
{
    QVERIFY(reader->open(source.get(), pcm(44100, 2), true));
    store().deliverAtMost = 10;
    convertsUntilFailure = 1;
    QTest::ignoreMessage(QtCriticalMsg, "Error while converting audio format");
    read(3840, -1);
    read(3840);
}

void tst_AudioReader::failingReset()
{
    QVERIFY(reader->open(source.get(), pcm(44100, 1), true));
    store().deliverAtMost = 10;
    initsUntilFailure = 0;
    QTest::ignoreMessage(QtCriticalMsg, "Error reseting resampler");
    read(3840, -1);
    QCOMPARE(liveResamplers, 0);
    // The next read builds another one instead of copying stereo into the mono buffer.
    store().deliverAtMost = -1;
    read(3840);
    QCOMPARE(liveResamplers, 1);
}

void tst_AudioReader::waveformGetsWhatTheDeviceGets()
{
    QBuffer waveform;
    QVERIFY(waveform.open(QIODevice::WriteOnly));
    QVERIFY(reader->open(source.get(), pcm(44100, 1), false));
    reader->setWaveformOutput(&waveform);
    QByteArray expected = read(2000);
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
    convertsUntilFailure = 0;
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
