#ifndef ZEVQTMM_SOUNDSERVERRETURN_H
#define ZEVQTMM_SOUNDSERVERRETURN_H

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QPointer>

class QAudioDeviceInfo;

/*!
 * Brings Qt's PulseAudio backend back to a sound server that was away for long. When the backend loses its
 * server it looks for it once, three seconds later; was that too early, every output of the process fails
 * from then on, and there is no interface to make it look again. This does, by the name of the backend's own
 * slot, which Qt 5.15 has. Where that is not found, with another backend or another Qt, nothing is done.
 *
 * Usage: watch() before the first output is made; started() after each that could be started; lookAgain()
 * after one that could not, and when that is true, start it once more.
 *
 * Threads: the application object's thread, like the backend; in others nothing is done.
 * Ownership: one object, a child of the application object.
 * Errors: none.
 * Cost: until the server is lost, a look at the type of each event of the application; lookAgain() waits for
 * an answer of the server for at most a quarter of a second.
 */
class SoundServerReturn : public QObject
{
    Q_OBJECT

public:
    static void watch();
    static void started(const QAudioDeviceInfo &device);
    /*! True when the backend was told to connect again, to a server that answers. */
    static bool lookAgain(const QAudioDeviceInfo &device);

    bool eventFilter(QObject *receiver, QEvent *event) override;

private:
    using QObject::QObject;

    static bool isWatched(const QAudioDeviceInfo &device);

    QPointer<QObject> backend; // that has lost its server
    QElapsedTimer lost;
};

#endif
