#ifndef ZEVQTMM_LIVESTATISTICS_H
#define ZEVQTMM_LIVESTATISTICS_H

#include <zevqt-mm/zevqtmmglobal.h>

#include <QtCore/QMetaType>
#include <QtCore/QObject>
#include <QtCore/QSize>
#include <QtCore/QString>
#include <QtCore/QtNumeric>

/*!
 * What a source and those who show it are doing, at one moment: a plain value, copied out.
 *
 * Usage: LiveSource of the QML module has one as its property `statistics`. In C++, of a LiveSource that QML
 * made:
 *
 *     const auto now = source->property("statistics").value<LiveStatistics>();
 *
 * Everything that counts up does so from the moment on that the source was named, whether it is shown or not;
 * naming another one begins anew.
 *
 * Threads: a value. Units: rates in pictures a second, times in milliseconds, counts. What is not known is 0,
 * times that may be 0 are NaN instead. Errors: none.
 */
struct ZEVQTMM_EXPORT LiveStatistics
{
    Q_GADGET
    Q_PROPERTY(double sourceRate MEMBER sourceRate)
    Q_PROPERTY(double shownRate MEMBER shownRate)
    Q_PROPERTY(double meanRate MEMBER meanRate)
    Q_PROPERTY(double tickRate MEMBER tickRate)
    Q_PROPERTY(quint64 frames MEMBER frames)
    Q_PROPERTY(quint64 distinct MEMBER distinct)
    Q_PROPERTY(quint64 repeated MEMBER repeated)
    Q_PROPERTY(quint64 skipped MEMBER skipped)
    Q_PROPERTY(quint64 lapped MEMBER lapped)
    Q_PROPERTY(quint64 backward MEMBER backward)
    Q_PROPERTY(quint64 unanswered MEMBER unanswered)
    Q_PROPERTY(quint64 unansweredBeforeFirst MEMBER unansweredBeforeFirst)
    Q_PROPERTY(quint64 idle MEMBER idle)
    Q_PROPERTY(quint64 noSignal MEMBER noSignal)
    Q_PROPERTY(double ageP50Ms MEMBER ageP50Ms)
    Q_PROPERTY(double ageP95Ms MEMBER ageP95Ms)
    Q_PROPERTY(double ageP99Ms MEMBER ageP99Ms)
    Q_PROPERTY(double ageMaxMs MEMBER ageMaxMs)
    Q_PROPERTY(double jitterMs MEMBER jitterMs)
    Q_PROPERTY(int audioUnderruns MEMBER audioUnderruns)
    Q_PROPERTY(double audioSilenceMs MEMBER audioSilenceMs)
    Q_PROPERTY(double avOffsetMs MEMBER avOffsetMs)
    Q_PROPERTY(double avOffsetP95Ms MEMBER avOffsetP95Ms)
    Q_PROPERTY(quint64 avOffsets MEMBER avOffsets)
    Q_PROPERTY(int locksHeld MEMBER locksHeld)
    Q_PROPERTY(QSize size MEMBER size)
    Q_PROPERTY(QString pixelFormat MEMBER pixelFormat)
    Q_PROPERTY(QString framePath MEMBER framePath)
    Q_PROPERTY(QString framePathReason MEMBER framePathReason)

public:
    /*! Of the source, by its own timestamps; 0: not known. */
    double sourceRate = 0.0;
    /*! Pictures handed out a second, over the last two seconds. */
    double shownRate = 0.0;
    /*! The same over all the time that pictures came. */
    double meanRate = 0.0;
    /*! How often a second the source is asked. */
    double tickRate = 0.0;
    /*! What sourceRate is made of, microseconds. */
    qint64 sourceIntervalUs = 0;
    /*! Pictures handed out: distinct and repeated ones. */
    quint64 frames = 0;
    /*! Of those with another timestamp than the one before. */
    quint64 distinct = 0;
    /*! Of those the others. */
    quint64 repeated = 0;
    /*! Pictures of the source that were never handed out although there were ticks enough. */
    quint64 skipped = 0;
    /*! How often the source had gone round meanwhile: what came after the last picture was overwritten. */
    quint64 lapped = 0;
    /*! Pictures older than the one before. */
    quint64 backward = 0;
    /*! Requests without a picture, since the first one. */
    quint64 unanswered = 0;
    /*! The same before the first picture. */
    quint64 unansweredBeforeFirst = 0;
    /*! How often pictures stopped coming. */
    quint64 idle = 0;
    /*! How many pictures stood in for one that was missing. */
    quint64 noSignal = 0;
    /*! Clock at the hand-out minus the picture's timestamp: the median. */
    double ageP50Ms = 0.0;
    /*! The same: 95 of 100 are not older. */
    double ageP95Ms = 0.0;
    /*! The same: 99 of 100 are not older. */
    double ageP99Ms = 0.0;
    /*! The same: the oldest. */
    double ageMaxMs = 0.0;
    /*! How far the source's intervals stray, as it says itself. */
    double jitterMs = 0.0;
    /*! Gaps in the sound that was played. */
    int audioUnderruns = 0;
    /*! All of them together. */
    double audioSilenceMs = 0.0;
    /*! The picture against its sound, positive when it is ahead: the median; NaN while nothing is known. */
    double avOffsetMs = qQNaN();
    /*! The size that 95 of 100 keep within; NaN while nothing is known. */
    double avOffsetP95Ms = qQNaN();
    /*! Pictures that these two are about. */
    quint64 avOffsets = 0;
    /*! Frames of the store that this source keeps locked at this moment. */
    int locksHeld = 0;
    /*! Pixels of the last picture; empty without one. */
    QSize size;
    /*! "yuv420p", "nv12", ... of the last picture; "none" without one. */
    QString pixelFormat = QStringLiteral("none");
    /*! How it got onto the screen ("mapped", "converted", "eglimage"), or only out of the source ("mapped",
     * "gpu", "image"); "none" without one. And why not by a better way; empty when there is none. */
    QString framePath = QStringLiteral("none");
    /*! Why not by a better way; empty when there is none. */
    QString framePathReason;
};
Q_DECLARE_METATYPE(LiveStatistics)

#endif
