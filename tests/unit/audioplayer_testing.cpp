#include "audioplayer_testing.h"

#include <QtTest/QtTest>

namespace {

QStringList logged;

void collect(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (QByteArray(context.category).startsWith("zevqt"))
        logged.append(QStringLiteral("%1 %2").arg(int(type)).arg(message));
}

} // namespace

void AudioPlayerTest::initTestCase()
{
    // Only the devices that are linked in.
    QCoreApplication::setLibraryPaths({});
    QLoggingCategory::setFilterRules(QStringLiteral("zevqt.audio=true"));
}

void AudioPlayerTest::init()
{
    store().reset();
    devices().reset();
    fakeclock::shiftMs = 0;
    fakeclock::starts = 0;
    source = std::make_unique<MediaSource>(QStringLiteral("mic"), 100);
    QVERIFY(source->open());
    logged.clear();
    qInstallMessageHandler(collect);
}

void AudioPlayerTest::cleanup()
{
    AudioPlayer::teardown();
    qInstallMessageHandler(nullptr);
    source.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(devices().destroyedActive, 0);
    QCOMPARE(devices().liveOutputs, 0);
    QCOMPARE(store().openHandles, 0);
}

QStringList AudioPlayerTest::takeLog()
{
    QStringList result;
    result.swap(logged);
    return result;
}
