#ifndef ZEV_TESTS_AUDIOREADER_TESTING_H
#define ZEV_TESTS_AUDIOREADER_TESTING_H

#include "fake_audiostore.h"
#include "fake_resampler.h"

#include <zevqt-mm/audioreader.h>
#include <zevqt-mm/mediasource.h>

#include <QtCore/QObject>
#include <QtMultimedia/QAudioFormat>

#include <memory>

inline constexpr qint64 now = 1000000000; // newest audio of a fresh store

QAudioFormat pcm(int rate, int channels, int bits = 16,
                 QAudioFormat::SampleType type = QAudioFormat::SignedInt);

/*! A test of the reader: an open source and a reader that is not open yet, made anew for every function. */
class AudioReaderTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

protected:
    static FakeAudioStore &store() { return FakeAudioStore::instance(); }
    qint64 lastRequest() const { return store().queries.back().timestamp; }
    /*! Reads into a buffer of 0x55; what is expected is a full read unless said otherwise. */
    QByteArray read(int size, qint64 expected = -2);

    std::unique_ptr<MediaSource> source;
    std::unique_ptr<AudioReader> reader;
};

#endif
