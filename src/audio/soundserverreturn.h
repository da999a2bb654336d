#ifndef ZEVQTMM_SOUNDSERVERRETURN_H
#define ZEVQTMM_SOUNDSERVERRETURN_H

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

class QAudioDeviceInfo;

/*!
 * Brings Qt's PulseAudio backend to a sound server that was away for long, or that was not there yet. When
 * the backend loses its server it looks for it once, three seconds later; was that too early, every output of
 * the process fails from then on. Was there no server when the backend was made, it never looks again. There
 * is no interface to make it look. This does, by the names of the backend's own slots, which Qt 5.15 has.
 * Where those are not found, with another backend or another Qt, nothing is done.
 *
 *     lost, by itself or told to:  0 s                 3 s                    3.5 s
 *                                  lets go             looks for the server   may be told to look again
 *
 * A backend that looks while it is connected would be connected twice. So it is told to look only when an
 * output has failed as it does without a connection, and after the attempt that it has made itself: both
 * are timers of one event loop, so that the order holds however long that loop stands still.
 *
 * Usage: watch() before the first output is made; findBackend() before the first look at the devices;
 * lookForServer() after a look that did not find one; started() after each output that could be started;
 * lookAgain() after one that could not, and when that is true, start it once more.
 *
 * Threads: the application object's thread, like the backend; in others nothing is done.
 * Ownership: one object, a child of the application object.
 * Errors: none.
 * Cost: until the server is lost, a look at the type of each event of the application; findBackend(),
 * lookAgain() and lookForServer() ask the server (soundserver.h).
 */
class SoundServerReturn : public QObject
{
    Q_OBJECT

public:
    static void watch();
    /*!
     * Looks at the devices, which makes the backend, once. One that was made before is not found. False, and
     * it has not looked, when the server is silent: the backend would wait for it without end.
     */
    static bool findBackend();
    /*! True while the backend takes itself to be connected; also to a server that takes no connection. */
    static bool isConnected(const QAudioDeviceInfo &device);
    /*!
     * `listed`: all devices that Qt knows. When the server has devices and none of them is listed, now and a
     * second later, the backend lets go and connects three seconds after that.
     */
    static void lookForServer(const QList<QAudioDeviceInfo> &listed);
    static void started(const QAudioDeviceInfo &device);
    /*! True when the backend was told to connect again, to a server that answers. */
    static bool lookAgain(const QAudioDeviceInfo &device);

    bool eventFilter(QObject *receiver, QEvent *event) override;

private:
    explicit SoundServerReturn(QObject *parent);

    static SoundServerReturn *ofThisThread();
    void lookForServerAgain();

    QPointer<QObject> made;  // the backend, where it was seen being made
    QPointer<QObject> loser; // the backend since it has lost its server
    QTimer ownAttempt;       // runs until the backend has made it
    QTimer secondLook;       // runs until the server is asked once more
    bool hasLooked = false;
};

#endif
