#ifndef ZEV_TESTS_FAKE_ZEVMM_H
#define ZEV_TESTS_FAKE_ZEVMM_H

#include <zevmm/v4l2/capturebase.h>

#include <QtCore/QMutex>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <string>

/*!
 * A capture library for tests: defines every operation of DmaEglCapture and CaptureBase that the library
 * calls. What they answer is set beforehand in the fields below, what they were asked is read from `calls`.
 *
 * Threads: the operations, offer() and setTrouble() may be called from any thread; fields are set while
 * nobody calls.
 */
class FakeZevmm
{
public:
    static FakeZevmm &instance();
    /*! A camera of 64 x 36 that has no frame. */
    void reset();

    /*! The calls so far, each with its arguments, and forgets them. Status operations are left out. */
    QStringList takeCalls();
    void record(const QString &call);
    /*! One more image that waits. */
    void offer(void *image);
    void *take();
    bool hasImage();
    void setTrouble(const std::string &text);
    std::string currentTrouble();

    // Answers. An operation whose name is in `failing` throws std::runtime_error with that name as its text.
    QStringList failing;
    zevmm::v4l2::CaptureFormat format;
    QVector<void *> images; // waiting: one for each readFrame(), oldest first
    bool isExclusive;       // the device is: a second capture's setup() says that it is busy
    bool lateFrame;         // isFrameReady() does not see them, readFrame() does
    std::string trouble;
    zevmm::v4l2::CaptureStatistics statistics;

    // State.
    int alive; // captures

private:
    QMutex mutex;
    QStringList calls;
};

#endif
