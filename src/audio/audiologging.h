#ifndef ZEVQTMM_AUDIOLOGGING_H
#define ZEVQTMM_AUDIOLOGGING_H

#include <QtCore/QLoggingCategory>

/*!
 * The categories of the audio road's messages. Both are enabled from the warning level up; a rule such as
 * "zevqt.audio.debug=true" switches the rest on. Thread-safe; each is built once, on first use.
 */
/*! "zevqt.audio": the player, and the reader's errors and choice of resampler. */
const QLoggingCategory &audio();
/*! "zevqt.audio-timings": every read of the reader. Verbose. */
const QLoggingCategory &audioTimings();

#endif
