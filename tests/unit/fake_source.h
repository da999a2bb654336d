#ifndef ZEV_TESTS_FAKE_SOURCE_H
#define ZEV_TESTS_FAKE_SOURCE_H

#include <zevqt-mm/mediasourcebase.h>

#include <QtCore/QStringList>

/*! A source that reports the status it is given and notes what it was asked for. */
class FakeSource : public MediaSourceBase
{
public:
    VideoStatus status;
    QStringList calls;
    QString sourceName = QStringLiteral("fake");
    int statusCalls = 0;

    bool open() override { return true; }
    QString name() const override { return sourceName; }
    void setRealtimeSyncRange(int, int) override {}
    VideoStatus getVideoStatus() override
    {
        ++statusCalls;
        return status;
    }
    QSize getVideoFrameSize() override { return QSize(-1, -1); }
    void setVideoFrameRate(unsigned int, unsigned int) override {}
    void setVideoFrameRate(double) override {}
    void setRequestedImageFormat(const QSize &, QImage::Format, bool, bool) override {}

    void requestVideo(long long ts) override { note("requestVideo", ts); }
    void requestImage(long long ts) override { note("requestImage", ts); }
    void requestAudio(long long ts) override { note("requestAudio", ts); }
    void requestVideoAudio(long long ts) override { note("requestVideoAudio", ts); }
    void requestImageAudio(long long ts) override { note("requestImageAudio", ts); }

private:
    void note(const char *request, long long ts)
    {
        calls.append(QStringLiteral("%1 %2").arg(QLatin1String(request)).arg(ts));
    }
};

#endif
