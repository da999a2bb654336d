#ifndef ZEVQTMM_AUDIOREADER_H
#define ZEVQTMM_AUDIOREADER_H

#include <zevqt-mm/zevqtmmglobal.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QIODevice>
#include <QtCore/QVector>
#include <QtMultimedia/QAudioFormat>

class MediaSource;
struct SwrContext;

/*!
 * The device that an audio output pulls a source's audio from.
 *
 * Every read takes the source's samples at the reader's own position, converts them to the output's format
 * and fills what was not to be had with silence: the output never sees a short read. The position starts a
 * fixed delay behind the newest audio and moves on by what was read; it jumps forward again when it has
 * fallen too far behind:
 *
 *     -------------|----------------|-----------------|---> time
 *              last - maxDelay    position           last (the newest audio the source holds)
 *                                   '---- delay ------'
 *
 * With the defaults, reading starts 200 ms behind; a position more than 300 ms behind is put back to 200 ms.
 * A position that runs ahead is not put back: what is not there yet reads as silence.
 *
 * Usage: open() with a source and the output's format, hand the reader to the output, close(). An opened
 * reader survives a source that goes away and returns, and follows a change of its format.
 *
 * Threads: bound to the thread of the output, without a lock.
 *
 * Ownership: borrows the source until close(), and the waveform output until it is replaced; the source must
 * not die before.
 *
 * Units: timestamps and delays in wall-clock microseconds; sizes in bytes; frames are samples of every
 * channel.
 *
 * Errors: open() returns false, a read -1; resampler failures are logged as critical.
 *
 * Cost: a read copies once when the formats are equal and resamples otherwise; it allocates nothing and does
 * not wait, except for the source's lock.
 */
class ZEVQTMM_EXPORT AudioReader : public QIODevice
{
    Q_OBJECT

public:
    /*! Where sound was missing since construction; the numbers only grow. */
    struct Gaps
    {
        qint64 silence = 0; //!< delivered because there was no audio; microseconds of the output
        int episodes = 0;   //!< how often silence began after a read that was full
        //! How often reading went on elsewhere: it had fallen behind, or the source's format had changed.
        int jumps = 0;
        bool isSilent = false; //!< the last read ended in silence
    };

    /*! Closed. */
    explicit AudioReader(QObject *parent = nullptr);
    ~AudioReader() override;

    using QIODevice::open;
    /*!
     * False when the source's format cannot be converted to `outputFormat`, or when the source has no audio
     * and `requireAudio` is set. Without it, a source without audio reads as silence.
     */
    bool open(MediaSource *source, const QAudioFormat &outputFormat, bool requireAudio);
    /*! Lets go of the source. */
    void close() override;
    /*! True. */
    bool isSequential() const override;
    /*! 0: what there is to read is not counted, silence fills the rest. */
    qint64 bytesAvailable() const override;
    /*! False: it cannot. */
    bool seek(qint64 pos) override;

    /*! `maxSize` bytes, or -1; what was delivered is copied to the waveform output. */
    qint64 readData(char *data, qint64 maxSize) override;
    /*! 0: nothing can be written. */
    qint64 writeData(const char *data, qint64 size) override;
    /*! readData() without the waveform output. */
    qint64 readDataInternal(char *data, qint64 maxSize);
    /*! Makes the conversion from `inputFormat`; false, with a message, when there is none. */
    bool updateResampler(QAudioFormat inputFormat);

    /*! How far behind the newest audio reading starts. Takes effect at the next read. */
    void setDelay(qint64 delay);
    /*! How far behind it may fall. Takes effect at the next read. */
    void setMaxDelay(qint64 maxDelay);
    /*! Null for none. The previous one is neither closed nor deleted. */
    void setWaveformOutput(QIODevice *output);

    /*! Forgets the position; the next read finds it anew. */
    void resetTimer();
    /*! True when the time read has strayed from the time passed by more than `maxDelay`. */
    bool check_delta();

    /*! As set, 200 ms at first. */
    qint64 getDelay() const { return delay; }
    /*! As set, 300 ms at first. */
    qint64 getMaxDelay() const { return maxDelay; }
    /*! Null while it is closed. */
    MediaSource *getSource() const { return source; }
    /*! Timestamp of the next sample to read; 0 before the first read. */
    qint64 getReadPosition() const { return readPosition; }
    /*! Timestamp of the first sample that was read since open(); 0 while there is none. */
    qint64 getFirstTimestamp() const { return firstTimestamp; }
    /*! Audio that was read from the source and not yet taken by the output; microseconds. */
    qint64 readAhead() const;
    /*! Since construction. */
    const Gaps &getGaps() const { return gaps; }
    /*!
     * What the last read left: the newest audio at that time less the position after it; microseconds, 0 when
     * the read was short, -1 before the first one since open() and while there is no audio.
     */
    qint64 getReserve() const { return reserve; }

private:
    void anchor(qint64 last, qint64 span);
    qint64 grab(unsigned long frames, void *destination, qint64 last);
    qint64 resample(char *data, qint64 frames, qint64 last);
    void failResampler(const char *message);
    void countSilence(qint64 frames);

    QAudioFormat outputFormat;
    QAudioFormat inputFormat; // the source's, at the last read
    MediaSource *source;
    bool requireAudio;
    qint64 readPosition;
    qint64 firstTimestamp;
    SwrContext *resampler;   // null: the formats are equal
    QElapsedTimer readTimer; // valid while the position is anchored
    qint64 delay;
    qint64 maxDelay;
    qint64 samplesRead;
    int grabSamples;
    QVector<unsigned char> inputBuffer;
    QIODevice *waveformOutput;
    Gaps gaps;
    qint64 reserve; // that the last read left
};

#endif
