#ifndef ZEVQTMM_SHMEMREADER_H
#define ZEVQTMM_SHMEMREADER_H

#include "sources/lockedframes.h"

#include <QtCore/QByteArray>
#include <QtCore/QElapsedTimer>
#include <QtCore/QMutex>
#include <QtCore/QSharedPointer>
#include <QtCore/QSize>
#include <QtCore/QVariant>
#include <QtCore/QVector>
#include <QtMultimedia/QAudioBuffer>
#include <QtMultimedia/QAudioFormat>
#include <QtMultimedia/QVideoFrame>

#include <shm/shm_reader.h>

#include <atomic>

/*!
 * The only client of the frame store: keeps the connection to one store healthy and fetches from it.
 *
 * Usage: construct, then grab; open() only tells sooner whether the store is there. The connection is looked
 * at once a second, and made anew when the writer has gone; a store that is not there is tried once a second.
 *
 * Threads: thread-safe; one mutex is held for the whole of each public operation, library calls included.
 * check() and reopen() expect it held. A frame's lock is given back without the mutex, in the thread that
 * releases the frame.
 *
 * Ownership: a locked frame holds a reference to the handle it came from, so that re-opening or closing the
 * reader leaves frames in use alone; the handle is closed when the last of them goes.
 *
 * Units: timestamps in wall-clock microseconds; the realtime range is given in milliseconds.
 *
 * Errors: empty results (invalid frame, empty buffer, QSize(-1, -1), zeroed status, 0); nothing throws or
 * logs.
 *
 * Cost: a grab locks and wraps, and allocates no more than QVideoFrame itself does while at most eight frames
 * are in use; an open may wait for the writer's answer as long as `openParam` says.
 */
class ShmemReader
{
public:
    /*! `name` may end in ";" and a number, the audio channel to select. Does not open. */
    ShmemReader(QString name, int openParam);
    ~ShmemReader();

    bool open();
    void close();
    bool check(bool force);
    bool reopen();

    void setRealtimeSyncRange(int min, int max);
    bool checkRealtimeSync(long long ts) const;
    void setVideoFrameRate(unsigned int numerator, unsigned int denominator);
    void setVideoFrameRate(double fps);

    shm_video_status_t getVideoStatus();
    QSize getVideoFrameSize();
    QVector<long long> getVideoTimestamps();
    QVideoFrame grabVideo(long long ts);
    QVideoFrame grabVideo(long long ts, shm_video_lookup_mode_t mode);

    /*! Frames of the open handle that are still in use. Waits for nobody: as last known while a call is under
     * way. */
    int getHeldFrames();

    /*! `frames` frames from `ts` on, all of them or none; `ts` <= 0 counts back from the newest. */
    QAudioBuffer grabAudio(int stream, unsigned long frames, long long ts);
    /*! What there is of `frames` frames from `ts` on; `dst` has room for them in the format last reported. */
    long long grabAudio(int stream, unsigned long frames, void *dst, long long ts);
    QAudioFormat getAudioFormat();
    /*! The same, for who does not size a buffer for the raw copy by it. */
    QAudioFormat peekAudioFormat();
    long long getAudioLastTimestamp();

    /*! Without the mutex: never changes after construction. */
    const QByteArray &getName() const { return name; }

private:
    friend class ShmemReaderProbe; // of the tests: makes a second pass by resetting checkTimer

    Q_DISABLE_COPY(ShmemReader)

    bool hasVideo() { return check(false) && format.has_video; }
    bool hasAudio() { return check(false) && format.has_audio; }
    QAudioFormat currentAudioFormat();
    void startCheckTimer();
    bool isCheckRecent() const;
    void applyVideoFrameRate();
    void openDmabufs();
    QVideoFrame grabVideoInternal(long long ts, shm_video_lookup_mode_t *mode);
    QVideoFrame wrapFrame(LockedFrames::Lease frame, int dmabufFd);

    QByteArray name;
    shm_reader_t *reader;
    QSharedPointer<shm_reader_t> readerRef;
    shm_reader_format_t format; // format.valid doubles as "the reader is usable"
    QMutex mutex;
    QElapsedTimer checkTimer;
    long long realtimeSyncMin;
    long long realtimeSyncMax;
    unsigned int fpsNumerator;
    unsigned int fpsDenominator;
    int openParam;
    int audioChannel;
    int reportedChannels; // that getAudioFormat() reported last: what callers' buffers are sized for; 0 =
                          // none yet
    QAudioFormat mappedFormat; // of a store with audio, kept because QAudioFormat allocates when it is made
    QString noDmabufReason;    // of frames without one; empty unless DMA-bufs were asked for
    LockedFrames::Owner lockedFrames; // through `reader`; null when it has no video
    std::atomic<int> heldFrames{0};   // as getHeldFrames() found it last
    QVariant nameEntry;               // "shmname" of every frame
    qint64 recentUntilMs;             // coarse clock: checkTimer cannot have expired before
};

#endif
