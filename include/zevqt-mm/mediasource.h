#ifndef ZEVQTMM_MEDIASOURCE_H
#define ZEVQTMM_MEDIASOURCE_H

#include <zevqt-mm/mediasourcebase.h>

#include <QtMultimedia/QAudioFormat>

#include <atomic>

class ShmemReader;
class VideoFrameConverter;
class VideoFrameStreamConverter;

/*!
 * The source for a shared-memory frame store.
 *
 * Usage: construct with the store's name ("cam0"; "mic;2" selects audio channel 2), optionally open(), then
 * request. A store that is not there, or whose writer restarts, is looked for again as the source is used, at
 * most once a second; nothing needs to be done about it.
 *
 * Threads: store access is serialized inside, so requests, status and configuration may run in any thread.
 * The image converter is created on first use: the first image request or setRequestedImageFormat() must not
 * race with another. Before destruction begins to take things down, `destroyed` is announced, so that a user
 * in another thread can let go first.
 *
 * Ownership: frames keep the store's memory locked as long as a copy of the QVideoFrame lives, also after the
 * source has gone; they are never copied.
 *
 * Units: timestamps in wall-clock microseconds; audio counted in frames (one sample of every channel),
 * interleaved signed 16-bit little-endian.
 *
 * Errors: empty values only: invalid frame, null image, empty buffer, 0. Every request still emits.
 *
 * Cost: a frame request locks and wraps, without copying; an image request converts in the calling thread.
 */
class ZEVQTMM_EXPORT MediaSource : public MediaSourceBase
{
    Q_OBJECT

public:
    /*! Does not open the store. `openParam` goes to shm_reader_open() as it is. */
    MediaSource(QString name, int openParam, QObject *parent = nullptr);
    ~MediaSource() override;

    bool open() override;
    /*! The store's name, without the channel suffix. */
    QString name() const override;
    void setRealtimeSyncRange(int min, int max) override;
    VideoStatus getVideoStatus() override;
    QSize getVideoFrameSize() override;
    void setVideoFrameRate(unsigned int numerator, unsigned int denominator) override;
    void setVideoFrameRate(double fps) override;
    void setRequestedImageFormat(const QSize &size, QImage::Format format, bool keepAspectRatio,
                                 bool pointSampling) override;

    /*! Drops the connection; a later grab opens it again. */
    void close();
    /*!
     * Frames of the store that are in use, each of them locked. Those of a writer that has gone do not count.
     * Never waits, any thread.
     */
    int getHeldFrames() const;
    /*! The frame nearest to `ts` (0: the newest), locked; invalid when there is none near enough. */
    QVideoFrame grabVideo(long long ts);
    /*! That frame converted, as setRequestedImageFormat() says; null when there is none. */
    QImage grabImage(long long ts);
    /*!
     * `frames` audio frames of stream 0 from `ts` on. 0 asks for the newest block, a negative `ts` for one
     * that ends that much earlier. All of it, or an empty buffer.
     */
    QAudioBuffer grabAudio(unsigned long frames, long ts);
    /*!
     * Copies up to `frames` audio frames from `ts` on into `dst`, which has room for `frames` frames of the
     * channels that getAudioFormat() reported last. Returns the frames written. Nothing is written while the
     * store has more channels than that.
     */
    long long grabAudio(int stream, unsigned long frames, short *dst, long long ts);
    /*!
     * Of the store as it is now; invalid without audio. The grab into a buffer is bounded by the channels
     * that this reported last, to whomever: call it only in the thread that grabs that way (while an
     * AudioPlayer plays the source, the player's), or a thread that is told of more channels lets a grab in
     * another one write them into a buffer that was made for fewer. The other operations do not count.
     */
    QAudioFormat getAudioFormat();
    /*! End of the newest audio of stream 0, 0 without. */
    long long getAudioLastTimestamp();
    /*! Audio frames that a request delivers: the requested count, else 100 ms, 0 without audio. */
    unsigned long getDefaultSamplesCount();
    /*! 0 restores the default of 100 ms. */
    void setRequestedAudioSamplesCount(unsigned long frames);
    /*! Created on first use; owned by the source. */
    VideoFrameConverter *getVideoFrameConverter();

public Q_SLOTS:
    void requestVideo(long long ts = 0) override;
    void requestImage(long long ts = 0) override;
    void requestAudio(long long ts = 0) override;
    void requestVideoAudio(long long ts = 0) override;
    void requestImageAudio(long long ts = 0) override;

private:
    ShmemReader *reader;
    std::atomic<unsigned long> requestedAudioSamples; // set in one thread, read in the one that requests
    VideoFrameStreamConverter *converter;
};

#endif
