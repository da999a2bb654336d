#ifndef ZEV_TESTS_AUDIOPLAYER_TESTING_H
#define ZEV_TESTS_AUDIOPLAYER_TESTING_H

#include "fake_audiostore.h"
#include "fake_audiosystem.h"
#include "fake_clockdetector.h"

#include <zevqt-mm/audioplayer.h>

#include <QtCore/QObject>
#include <QtCore/QStringList>

#include <memory>

inline constexpr qint64 now = 1000000000; // newest audio of a fresh store

/*!
 * A test of the player: an open source, and no player yet, for every function. What is logged meanwhile is
 * kept, as "type text", where the type is the number of Qt's.
 */
class AudioPlayerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

protected:
    static FakeAudioStore &store() { return FakeAudioStore::instance(); }
    static FakeAudioSystem &devices() { return FakeAudioSystem::instance(); }
    /*! Created last; null when it has gone. */
    static FakeAudioOutput *output() { return devices().output; }
    static AudioPlayer *player() { return AudioPlayer::getInstance(); }
    /*! What was logged since the last call. */
    static QStringList takeLog();

    std::unique_ptr<MediaSource> source;
};

#endif
