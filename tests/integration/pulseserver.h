#ifndef ZEV_TESTS_PULSESERVER_H
#define ZEV_TESTS_PULSESERVER_H

#include <QtCore/QByteArray>
#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QTemporaryDir>

/*!
 * A sound server of the test's own, with its own folders, and sinks that go nowhere: "a" (48000 Hz, stereo),
 * "b" (44100 Hz, stereo) and "c" (44100 Hz, mono). The environment of this process, and of those that it
 * starts, points to it. Works as root, and without any audio hardware.
 */
class PulseServer
{
public:
    PulseServer();
    ~PulseServer();

    /*! False when the server is not installed or does not come up. */
    enum class Sinks { All, WithoutB };
    bool start(Sinks sinks = Sinks::All);
    /*! As after a crash; start() brings it back in the same place, without its clients. */
    void kill();
    /*! Takes connections and does not answer, until thaw() or kill(). */
    void freeze();
    void thaw();
    /*! pactl's output, or an empty string on failure. */
    QString control(const QStringList &arguments);
    /*! Takes a sink away from whoever plays on it. */
    bool removeSink(const QString &name);
    /*! Brings it back. */
    bool addSink(const QString &name, int rate, int channels);
    /*! Of those that are there. */
    bool setDefaultSink(const QString &name);
    QString path(const QString &file) const { return directory.filePath(file); }

private:
    QTemporaryDir directory;
    QProcess server;
};

/*! Records what a sink plays, as interleaved signed 16-bit samples. */
class SinkRecorder
{
public:
    ~SinkRecorder();
    bool start(const QString &sink, int rate, int channels);
    /*! What came so far. */
    const QByteArray &data();

private:
    QProcess recorder;
    QByteArray recorded;
};

#endif
