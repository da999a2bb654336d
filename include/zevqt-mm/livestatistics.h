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
    /*! Of the source, by its own timestamps; 0: not known. */
    Q_PROPERTY(double sourceRate MEMBER sourceRate)
    /*! Pictures handed out a second, over the last two seconds. */
    Q_PROPERTY(double shownRate MEMBER shownRate)
    /*! The same over all the time that pictures came. */
    Q_PROPERTY(double meanRate MEMBER meanRate)
    /*! How often a second the source is asked. */
    Q_PROPERTY(double tickRate MEMBER tickRate)
    /*! Pictures handed out: distinct and repeated ones. */
    Q_PROPERTY(quint64 frames MEMBER frames)
    Q_PROPERTY(quint64 distinct MEMBER distinct)
    Q_PROPERTY(quint64 repeated MEMBER repeated)
    /*! Pictures of the source that were never handed out although there were ticks enough. */
    Q_PROPERTY(quint64 skipped MEMBER skipped)
    /*! How often the source had gone round meanwhile: what came after the last picture was overwritten. */
    Q_PROPERTY(quint64 lapped MEMBER lapped)
    /*! Pictures older than the one before. */
    Q_PROPERTY(quint64 backward MEMBER backward)
    /*! Requests without a picture, since the first one, and before it. */
    Q_PROPERTY(quint64 unanswered MEMBER unanswered)
    Q_PROPERTY(quint64 unansweredBeforeFirst MEMBER unansweredBeforeFirst)
    /*! How often pictures stopped coming, and how many stood in for one. */
    Q_PROPERTY(quint64 idle MEMBER idle)
    Q_PROPERTY(quint64 noSignal MEMBER noSignal)
    /*! Clock at the hand-out minus the picture's timestamp. */
    Q_PROPERTY(double ageP50Ms MEMBER ageP50Ms)
    Q_PROPERTY(double ageP95Ms MEMBER ageP95Ms)
    Q_PROPERTY(double ageP99Ms MEMBER ageP99Ms)
    Q_PROPERTY(double ageMaxMs MEMBER ageMaxMs)
    /*! How far the source's intervals stray, as it says itself. */
    Q_PROPERTY(double jitterMs MEMBER jitterMs)
    /*! Gaps in the sound that was played, and all of them together. */
    Q_PROPERTY(int audioUnderruns MEMBER audioUnderruns)
    Q_PROPERTY(double audioSilenceMs MEMBER audioSilenceMs)
    /*! The picture against its sound, positive when it is ahead: the median, and the size that 95 of 100 keep
     * within; NaN while nothing is known. */
    Q_PROPERTY(double avOffsetMs MEMBER avOffsetMs)
    Q_PROPERTY(double avOffsetP95Ms MEMBER avOffsetP95Ms)
    /*! Pictures that these two are about. */
    Q_PROPERTY(quint64 avOffsets MEMBER avOffsets)
    /*! Frames of the store that this source keeps locked at this moment. */
    Q_PROPERTY(int locksHeld MEMBER locksHeld)
    /*! Pixels of the last picture; empty without one. */
    Q_PROPERTY(QSize size MEMBER size)
    /*! "yuv420p", "nv12", ... of the last picture; "none" without one. */
    Q_PROPERTY(QString pixelFormat MEMBER pixelFormat)
    /*! How it got onto the screen ("mapped", "converted", "eglimage"), or only out of the source ("mapped",
     * "gpu", "image"); "none" without one. And why not by a better way; empty when there is none. */
    Q_PROPERTY(QString framePath MEMBER framePath)
    Q_PROPERTY(QString framePathReason MEMBER framePathReason)

public:
    double sourceRate = 0.0;
    double shownRate = 0.0;
    double meanRate = 0.0;
    double tickRate = 0.0;
    qint64 sourceIntervalUs = 0; // what sourceRate is made of
    quint64 frames = 0;
    quint64 distinct = 0;
    quint64 repeated = 0;
    quint64 skipped = 0;
    quint64 lapped = 0;
    quint64 backward = 0;
    quint64 unanswered = 0;
    quint64 unansweredBeforeFirst = 0;
    quint64 idle = 0;
    quint64 noSignal = 0;
    double ageP50Ms = 0.0;
    double ageP95Ms = 0.0;
    double ageP99Ms = 0.0;
    double ageMaxMs = 0.0;
    double jitterMs = 0.0;
    int audioUnderruns = 0;
    double audioSilenceMs = 0.0;
    double avOffsetMs = qQNaN();
    double avOffsetP95Ms = qQNaN();
    quint64 avOffsets = 0;
    int locksHeld = 0;
    QSize size;
    QString pixelFormat = QStringLiteral("none");
    QString framePath = QStringLiteral("none");
    QString framePathReason;
};
Q_DECLARE_METATYPE(LiveStatistics)

#endif
