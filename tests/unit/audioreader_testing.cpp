#include "audioreader_testing.h"

#include <QtTest/QtTest>

QAudioFormat pcm(int rate, int channels, int bits, QAudioFormat::SampleType type)
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

void AudioReaderTest::init()
{
    store().reset();
    fakeresampler::reset();
    source = std::make_unique<MediaSource>(QStringLiteral("mic"), 100);
    QVERIFY(source->open());
    reader = std::make_unique<AudioReader>();
}

void AudioReaderTest::cleanup()
{
    reader.reset();
    source.reset();
    QCOMPARE(store().openHandles, 0);
    QCOMPARE(fakeresampler::live, 0);
}

QByteArray AudioReaderTest::read(int size, qint64 expected)
{
    QByteArray data(size, 0x55);
    const qint64 result = reader->readData(data.data(), size);
    if (result != (expected == -2 ? size : expected))
        QTest::qFail(qPrintable(QStringLiteral("read returned %1").arg(result)), __FILE__, __LINE__);
    return data;
}
