#ifndef ZEV_TESTS_FAKE_SHM_H
#define ZEV_TESTS_FAKE_SHM_H

#include <shm/shm_reader.h>

#include <QtCore/QMutex>
#include <QtCore/QStringList>
#include <QtCore/QVector>

/*!
 * A frame store for tests: defines every shm_reader_* function that the library calls, with
 * FAKE_SHM_WITHOUT_INFO only those that it cannot do without. What they answer is set beforehand in the
 * fields below, what they were asked is read from `calls` afterwards.
 *
 * Threads: the functions may be called from any thread; fields are set while nobody calls.
 */
class FakeShm
{
public:
    static FakeShm &instance();
    /*! A store with 64 x 36 NV12 video, stereo audio at 48 kHz, and one of everything to be had. */
    void reset();

    /*! The calls so far, each with its arguments, and forgets them. */
    QStringList takeCalls();
    void record(const QString &call);

    // Answers.
    bool exists;
    int ready;
    shm_reader_format_t format;
    shm_video_status_t videoStatus;
    QVector<long long> timestamps;
    int timestampsResult; // -1000: as many as fit
    int lockResult;
    shm_video_frame_t frame; // described by a successful lock; its timestamp 0 stands for the one asked for
    int dmabufFd;
    int openDmabufResult;
    QByteArray dmabufText; // of the store's info
    int audioStatusResult;
    shm_audio_status_t audioStatus;
    qint64 queryResult; // -1000: everything that was asked for

    // State.
    int openHandles;
    int lockedFrames;
    shm_reader_t *lastUnlockedThrough;

    uchar pixels[64 * 64 * 2];

private:
    QMutex mutex;
    QStringList calls;
};

#endif
