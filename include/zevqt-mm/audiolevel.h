#ifndef ZEVQTMM_AUDIOLEVEL_H
#define ZEVQTMM_AUDIOLEVEL_H

#include <zevqt-mm/zevqtmmglobal.h>

#include <QtCore/QVector>

#include <cstddef>

class QAudioBuffer;
class QAudioFormat;

/*! One channel's level in decibels relative to full scale; -120 stands for silence. */
struct AudioLevel
{
    float rms; //!< root of the mean square
    float max; //!< of the largest sample
};
Q_DECLARE_TYPEINFO(AudioLevel, Q_PRIMITIVE_TYPE);

/*!
 * Levels of a block of interleaved signed 16-bit audio, one per channel in channel order, for meters:
 * typically of the buffers that a source emits with audioReady.
 *
 * Threads: reentrant. Errors: an empty vector for an invalid buffer, no channels, or more than eight. Cost:
 * reads every sample once; allocates the result.
 */
ZEVQTMM_EXPORT QVector<AudioLevel> getRmsMaxDecibels(const void *data, size_t frames,
                                                     const QAudioFormat &format);
/*! The same of a buffer. */
ZEVQTMM_EXPORT QVector<AudioLevel> getRmsMaxDecibels(const QAudioBuffer &buffer);

#endif
