#ifndef ZEVQTMM_VIDEOTIMELINE_H
#define ZEVQTMM_VIDEOTIMELINE_H

#include <zevqt-mm/mediasourcebase.h>

#include <QtCore/QSharedPointer>

#include <atomic>

class MultimediaThread;

/*!
 * Decides, once per tick, which timestamp a source is asked for.
 *
 * A live source holds a short history of frames. Asking for "now" would show whatever happens to have
 * arrived, with every hiccup of both clocks; the timeline reads the history at a steady delay instead:
 *
 *      oldest                                     newest      clock
 *     ---|---------|---------|---------|---------|------------|-----> time
 *        f0        f1        f2  ^     f3        f4          now
 *                                '------- readOffset ---------'
 *
 * With frames every 40 ms, the newest 25 ms old and a depth of 2, the read offset is 25 + 2 x 40 = 105 ms:
 * two frames behind the newest one. When source and ticks beat against each other and the read point lies
 * near the middle between two frames, where noise would decide which of them is shown, it is moved.
 *
 * Usage: connect tick() to the source's request slots, directly; start(). With external ticks, call
 * externalTick() once per displayed picture instead, from the window's frame signal for example.
 *
 * Threads: tick() is emitted in the tick thread, or in the caller of externalTick(). Everything else belongs
 * to the owner's thread. The fields that both touch are atomic and need no lock.
 *
 * Ownership: shares the source. The owner calls stop() before it destroys the timeline.
 *
 * Units: microseconds; timestamps on the wall clock.
 *
 * Cost: nextTimestamp() makes one getVideoStatus() call and a binary search.
 */
class ZEVQTMM_EXPORT VideoTimeline : public QObject
{
    Q_OBJECT

public:
    /*! What updateReadOffset() does with what it computes. */
    enum OffsetUpdateMode {
        Replace,      //!< the computed offset is stored
        DecreaseOnly, //!< it is stored only when it brings the read point closer to live
    };

    /*! Does not tick yet. With `useExternalTicks` it has no thread, and externalTick() is called. */
    VideoTimeline(QSharedPointer<MediaSourceBase> source, int frameRateNumerator, int frameRateDenominator,
                  bool useExternalTicks, QObject *parent = nullptr);
    ~VideoTimeline() override;

    /*! Starts to tick, and the warm-up of two seconds in which the delay may shrink. */
    void start();
    /*! No tick is emitted after it returns. The delay is kept; the next adjustReadPosition() counts again. */
    void stop();
    /*! Frames behind the newest one, at least. Takes effect when the delay is computed next. */
    void setMinDepth(int frames);
    /*! Ticks a second: numerator / denominator; at most 1073 a second in millionths. Restarts when running.
     */
    void setFrameRate(int numerator, int denominator);

    /*! Computes the delay from what the source holds at `now`; `correction` is added to it. */
    void updateReadOffset(long long now, long long correction, const MediaSourceBase::VideoStatus &status,
                          OffsetUpdateMode mode);
    /*! The timestamp to ask for at `now`. */
    long long nextTimestamp(long long now);
    /*! Current delay: the requested timestamp is the clock minus this; 0 = not yet computed. */
    long long getReadOffset() const;

Q_SIGNALS:
    /*! Ask the source for `ts`. */
    void tick(long long ts);

public Q_SLOTS:
    /*!
     * Reports the timestamp that is heard now: its age becomes the delay to aim at. Only the first report
     * after construction or stop() counts, so that the picture does not wander after it; 0 is ignored.
     */
    void adjustReadPosition(long long ts);
    /*! One tick from outside; `ts` is the current clock, 0 reads it. Ignored by a timeline with a tick
     * thread. */
    void externalTick(long long ts);

private:
    QSharedPointer<MediaSourceBase> source;
    MultimediaThread *thread;
    // Written by the owner's thread, the tick thread, or both. Relaxed, but for a cleared readOffset, which
    // publishes a new targetLatency.
    std::atomic<int> frameRateNumerator;
    std::atomic<int> frameRateDenominator;
    std::atomic<int> minDepth;
    std::atomic<long long> targetLatency;
    std::atomic<bool> running;
    std::atomic<long long> readOffset;
    std::atomic<int> adjustCount;
    std::atomic<long long> tickCount;
};

#endif
