#include "fake_source.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/videotimeline.h>

#include <QtCore/QMetaMethod>
#include <QtCore/QMetaProperty>
#include <QtTest/QtTest>

Q_DECLARE_METATYPE(const QMetaObject *)

class tst_MediaSourceBase : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void methodOrder_data();
    void methodOrder();
    void properties();
    void requestParameterIsNamedTs();
    void metaTypes_data();
    void metaTypes();
    void mediaSourceTypeIsAPointerToQObject();
    void slotsRunTheOverride_data();
    void slotsRunTheOverride();
    void defaultStatusSaysNothing();
    void hooksDoNothingByDefault();
};

namespace {

QStringList methodsOf(const QMetaObject &object)
{
    QStringList result;
    for (int i = object.methodOffset(); i < object.methodCount(); ++i) {
        const QMetaMethod method = object.method(i);
        const QString kind = method.methodType() == QMetaMethod::Signal ? QStringLiteral("signal ")
                             : method.methodType() == QMetaMethod::Slot ? QStringLiteral("slot ")
                                                                        : QStringLiteral("other ");
        result.append(kind + QString::fromLatin1(method.methodSignature()));
    }
    return result;
}

const QStringList requestSlots = {
    "slot requestVideo(qlonglong)",      "slot requestVideo()",
    "slot requestImage(qlonglong)",      "slot requestImage()",
    "slot requestAudio(qlonglong)",      "slot requestAudio()",
    "slot requestVideoAudio(qlonglong)", "slot requestVideoAudio()",
    "slot requestImageAudio(qlonglong)", "slot requestImageAudio()",
};

} // namespace

void tst_MediaSourceBase::methodOrder_data()
{
    QTest::addColumn<const QMetaObject *>("object");
    QTest::addColumn<QString>("className");
    QTest::addColumn<QString>("superClass");
    QTest::addColumn<QStringList>("methods");

    QTest::newRow("MediaSourceBase") << &MediaSourceBase::staticMetaObject << "MediaSourceBase"
                                     << "QObject"
                                     << QStringList{"signal videoReady(QVideoFrame)",
                                                    "signal imageReady(QImage)",
                                                    "signal audioReady(QAudioBuffer)"} +
                                            requestSlots;
    QTest::newRow("MediaSource") << &MediaSource::staticMetaObject << "MediaSource"
                                 << "MediaSourceBase" << requestSlots;
    QTest::newRow("VideoTimeline") << &VideoTimeline::staticMetaObject << "VideoTimeline"
                                   << "QObject"
                                   << QStringList{"signal tick(qlonglong)",
                                                  "slot adjustReadPosition(qlonglong)",
                                                  "slot externalTick(qlonglong)"};
    QTest::newRow("MediaProvider") << &MediaProvider::staticMetaObject << "MediaProvider"
                                   << "QObject"
                                   << QStringList{"signal runningChanged(bool)",
                                                  "signal imageReady(QImage)",
                                                  "signal videoReady(QVideoFrame)",
                                                  "signal audioReady(QAudioBuffer)",
                                                  "signal noSignalImagePathChanged(QString)",
                                                  "signal noSignalDelayChanged(std::chrono::seconds)",
                                                  "signal videoIdle()"};
}

void tst_MediaSourceBase::methodOrder()
{
    QFETCH(const QMetaObject *, object);
    QFETCH(QString, className);
    QFETCH(QString, superClass);
    QFETCH(QStringList, methods);
    QCOMPARE(QString::fromLatin1(object->className()), className);
    QCOMPARE(QString::fromLatin1(object->superClass()->className()), superClass);
    QCOMPARE(methodsOf(*object), methods);
}

void tst_MediaSourceBase::properties()
{
    const QMetaObject &provider = MediaProvider::staticMetaObject;
    QCOMPARE(provider.propertyCount() - provider.propertyOffset(), 1);
    const QMetaProperty running = provider.property(provider.propertyOffset());
    QCOMPARE(QByteArray(running.name()), QByteArray("running"));
    QCOMPARE(running.userType(), int(QMetaType::Bool));
    QVERIFY(running.isReadable() && running.isWritable());
    QCOMPARE(running.notifySignal().methodSignature(), QByteArray("runningChanged(bool)"));
    for (const QMetaObject *object : {&MediaSourceBase::staticMetaObject, &MediaSource::staticMetaObject,
                                      &VideoTimeline::staticMetaObject})
        QCOMPARE(object->propertyCount(), object->propertyOffset());
}

void tst_MediaSourceBase::requestParameterIsNamedTs()
{
    for (const QMetaObject *object : {&MediaSourceBase::staticMetaObject, &MediaSource::staticMetaObject}) {
        const QMetaMethod slot = object->method(object->indexOfSlot("requestVideoAudio(qlonglong)"));
        QCOMPARE(slot.parameterNames(), QList<QByteArray>{"ts"});
    }
}

void tst_MediaSourceBase::metaTypes_data()
{
    QTest::addColumn<const QMetaObject *>("object");
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<QByteArray>("typeName");
    QTest::newRow("frame") << &MediaSourceBase::staticMetaObject << QByteArray("videoReady(QVideoFrame)")
                           << QByteArray("QVideoFrame");
    QTest::newRow("audio") << &MediaSourceBase::staticMetaObject << QByteArray("audioReady(QAudioBuffer)")
                           << QByteArray("QAudioBuffer");
    QTest::newRow("seconds") << &MediaProvider::staticMetaObject
                             << QByteArray("noSignalDelayChanged(std::chrono::seconds)")
                             << QByteArray("std::chrono::seconds");
}

// Queued connections ask the meta-object for the argument's type: that registers it, and nobody else has to.
void tst_MediaSourceBase::metaTypes()
{
    QFETCH(const QMetaObject *, object);
    QFETCH(QByteArray, signal);
    QFETCH(QByteArray, typeName);
    const QMetaMethod method = object->method(object->indexOfSignal(signal));
    QVERIFY(method.isValid());
    const int type = method.parameterType(0);
    QVERIFY(type != QMetaType::UnknownType);
    QCOMPARE(QMetaType::type(typeName), type);
    QCOMPARE(QByteArray(QMetaType::typeName(type)), typeName);
}

void tst_MediaSourceBase::mediaSourceTypeIsAPointerToQObject()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    const int type = QMetaType::type("MediaSource*"); // by name, without having mentioned it
    QVERIFY(type != QMetaType::UnknownType);
    QVERIFY(QMetaType::typeFlags(type) & QMetaType::PointerToQObject);
    QCOMPARE(QMetaType::metaObjectForType(type), &MediaSource::staticMetaObject);
}

void tst_MediaSourceBase::slotsRunTheOverride_data()
{
    QTest::addColumn<QByteArray>("slot");
    for (const char *name :
         {"requestVideo", "requestImage", "requestAudio", "requestVideoAudio", "requestImageAudio"})
        QTest::newRow(name) << QByteArray(name);
}

void tst_MediaSourceBase::slotsRunTheOverride()
{
    QFETCH(QByteArray, slot);
    FakeSource source;
    QVERIFY(QMetaObject::invokeMethod(&source, slot.constData(), Q_ARG(qlonglong, 12)));
    QVERIFY(QMetaObject::invokeMethod(&source, slot.constData())); // no argument: the newest
    QCOMPARE(source.calls,
             QStringList({QString::fromLatin1(slot) + " 12", QString::fromLatin1(slot) + " 0"}));
}

void tst_MediaSourceBase::defaultStatusSaysNothing()
{
    const MediaSourceBase::VideoStatus status;
    QVERIFY(status.timestamps.isEmpty());
    QCOMPARE(status.frameInterval, 0LL);
    QCOMPARE(status.jitter, 0LL);
}

void tst_MediaSourceBase::hooksDoNothingByDefault()
{
    FakeSource source;
    QSignalSpy videos(&source, &MediaSourceBase::videoReady);
    source.doBeforeGLSynchronizing();
    source.doAfterGLSynchronizing();
    source.releaseGLResources();
    QCOMPARE(source.calls, QStringList());
    QCOMPARE(source.statusCalls, 0);
    QCOMPARE(videos.count(), 0);
}

QTEST_GUILESS_MAIN(tst_MediaSourceBase)
#include "tst_mediasourcebase.moc"
