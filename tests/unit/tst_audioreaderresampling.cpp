#include "audioreader_testing.h"

#include "audio/resampleroptions.h"

#include <QtTest/QtTest>

extern "C" {
#include <libswresample/swresample.h>
}

/*! Where the source's format is not the output's, or changes: resamplers, their failures and the staging
 * buffer. */
class tst_AudioReaderResampling : public AudioReaderTest
{
    Q_OBJECT

private Q_SLOTS:
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
};

void tst_AudioReaderResampling::resamplingTakesFullGrabsAndKeepsTheSurplus()
{
    QVERIFY(reader->open(source.get(), pcm(24000, 2), true));
    QCOMPARE(fakeresampler::live, 1);
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

void tst_AudioReaderResampling::resamplingThatRunsDryDrainsAndCarriesOn()
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

void tst_AudioReaderResampling::resamplesEveryFormat_data()
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

void tst_AudioReaderResampling::resamplesEveryFormat()
{
    QFETCH(int, channels);
    QFETCH(QAudioFormat, output);
    store().channels = channels;
    QVERIFY(source->open());
    QVERIFY(reader->open(source.get(), output, true));
    QCOMPARE(fakeresampler::live, 1);
    const int size = output.bytesForFrames(800);
    read(size);
    const QByteArray data = read(size);
    QVERIFY(data != QByteArray(size, 0));
    QVERIFY(data != QByteArray(size, 0x55));
}

// Twenty seconds, against the same samples converted in one go: grabs of 1024 frames, each 21333 us after the
// one before.
void tst_AudioReaderResampling::resamplingIsSeamless()
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

void tst_AudioReaderResampling::newFormatMidStreamAnchorsAnew()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    read(3840);
    read(3840);
    QCOMPARE(fakeresampler::live, 0);
    QCOMPARE(reader->getGaps().jumps, 0); // the first read has left nothing
    store().sampleRate = 44100;
    QVERIFY(source->open());
    store().pass(50000);
    store().queries.clear();
    QVERIFY(read(3840) != QByteArray(3840, 0));
    QCOMPARE(fakeresampler::live, 1);
    QCOMPARE(store().queries.front().timestamp, store().newest - 200000);
    QCOMPARE(reader->getGaps().jumps, 1);

    // More channels: the staging buffer has room for them by the time they are asked for.
    store().channels = 8;
    QVERIFY(source->open());
    QVERIFY(read(3840) != QByteArray(3840, 0));
    store().sampleRate = 48000;
    store().channels = 2;
    QVERIFY(source->open());
    read(3840);
    QCOMPARE(fakeresampler::live, 0);
    QCOMPARE(reader->getGaps().jumps, 3);
    reader->close(); // what a start finds is no jump
    QVERIFY(reader->open(source.get(), pcm(48000, 2), true));
    read(3840);
    QCOMPARE(reader->getGaps().jumps, 3);
}

// A tick thread that asks the same source for audio notices the new format first; the reader has asked for
// the format already, and its buffer is as wide as that said.
void tst_AudioReaderResampling::wideningStoreDoesNotOverrunTheBuffer()
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
void tst_AudioReaderResampling::storeThatWidensDuringARead()
{
    QVERIFY(reader->open(source.get(), pcm(44100, 2), true));
    fakeresampler::onConvert = [this] {
        store().channels = 8;
        QVERIFY(source->open());
        source->requestAudio();
        store().queries.clear();
    };
    const QByteArray data = read(16000); // four grabs
    QVERIFY(!fakeresampler::onConvert);
    QVERIFY(store().queries.empty());
    QVERIFY(data.left(3000) != QByteArray(3000, 0));
    QCOMPARE(data.right(8000), QByteArray(8000, 0));
    QVERIFY(read(16000).right(8000) != QByteArray(8000, 0));
    QCOMPARE(store().queries.front().timestamp, now - 200000); // anchored anew
}

void tst_AudioReaderResampling::formatsThatCannotBeConverted_data()
{
    QTest::addColumn<QAudioFormat>("output");
    QTest::newRow("24 bits") << pcm(48000, 2, 24);
    QTest::newRow("signed 8 bits") << pcm(48000, 2, 8);
    QTest::newRow("unsigned 16 bits") << pcm(48000, 2, 16, QAudioFormat::UnSignedInt);
    QTest::newRow("unknown type") << pcm(48000, 2, 16, QAudioFormat::Unknown);
    QTest::newRow("float of 16 bits") << pcm(48000, 2, 16, QAudioFormat::Float);
    QTest::newRow("no rate") << pcm(0, 2);
}

void tst_AudioReaderResampling::formatsThatCannotBeConverted()
{
    QFETCH(QAudioFormat, output);
    QTest::ignoreMessage(QtCriticalMsg, "Error in creating resampler");
    QVERIFY(!reader->open(source.get(), output, true));
    QVERIFY(!reader->isOpen());
    QCOMPARE(fakeresampler::live, 0);
}

void tst_AudioReaderResampling::resamplerThatCannotBeBuiltMidStream()
{
    QVERIFY(reader->open(source.get(), pcm(48000, 1), true));
    read(3840);
    store().sampleRate = 44100;
    QVERIFY(source->open());
    fakeresampler::initsUntilFailure = 0;
    QTest::ignoreMessage(QtCriticalMsg, "Error in creating resampler");
    QCOMPARE(read(3840, -1), QByteArray(3840, 0x55));

    // Back to the former format: its resampler is gone, and stereo must not be copied into a mono buffer.
    store().sampleRate = 48000;
    QVERIFY(source->open());
    read(3840);
    QCOMPARE(fakeresampler::live, 1);
}

void tst_AudioReaderResampling::failingConversion()
{
    QVERIFY(reader->open(source.get(), pcm(44100, 2), true));
    fakeresampler::convertsUntilFailure = 0;
    QTest::ignoreMessage(QtCriticalMsg, "Error while converting audio format");
    read(3840, -1);
    read(3840);
}

void tst_AudioReaderResampling::failingDrain()
{
    QVERIFY(reader->open(source.get(), pcm(44100, 2), true));
    store().deliverAtMost = 10;
    fakeresampler::convertsUntilFailure = 1;
    QTest::ignoreMessage(QtCriticalMsg, "Error while converting audio format");
    read(3840, -1);
    read(3840);
}

void tst_AudioReaderResampling::failingReset()
{
    QVERIFY(reader->open(source.get(), pcm(44100, 1), true));
    store().deliverAtMost = 10;
    fakeresampler::initsUntilFailure = 0;
    QTest::ignoreMessage(QtCriticalMsg, "Error reseting resampler");
    read(3840, -1);
    QCOMPARE(fakeresampler::live, 0);
    // The next read builds another one instead of copying stereo into the mono buffer.
    store().deliverAtMost = -1;
    read(3840);
    QCOMPARE(fakeresampler::live, 1);
}

QTEST_GUILESS_MAIN(tst_AudioReaderResampling)
#include "tst_audioreaderresampling.moc"
