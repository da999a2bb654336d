#include "tonepublisher.h"

#include <zevqt-mm/audioplayer.h>

#include <QtTest/QtTest>

// A machine without sound: nothing to play on, from the beginning.
class tst_AudioNoServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void thereIsNothingToPlayOn();
};

void tst_AudioNoServer::thereIsNothingToPlayOn()
{
    QTemporaryDir folder(QStringLiteral("/tmp/zev-XXXXXX"));
    const QByteArray path = folder.path().toUtf8();
    for (const char *variable :
         {"HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "PULSE_RUNTIME_PATH", "ZEV_SHM_DIR"})
        qputenv(variable, path);
    qputenv("PULSE_SERVER", "unix:" + path + "/none");
    QFile configuration(folder.filePath(QStringLiteral("client.conf")));
    QVERIFY(configuration.open(QIODevice::WriteOnly));
    configuration.write("autospawn = no\n");
    configuration.close();
    qputenv("PULSE_CLIENTCONFIG", configuration.fileName().toUtf8());

    TonePublisher publisher("tone", 48000, {{441, 8000}, {441, 8000}});
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    AudioPlayer *player = AudioPlayer::getInstance();
    QVERIFY(!player->setDevice(QStringLiteral("a")));
    QVERIFY(!player->start(&source, 25));
    if (QAudioDeviceInfo::availableDevices(QAudio::AudioOutput).isEmpty()) {
        player->setDevice(QStringLiteral("default"));
        QVERIFY(!player->enabled());
        QVERIFY(!player->start(&source, 25));
    }
    QVERIFY(!player->isActive());
    player->stop();
    AudioPlayer::teardown();
}

QTEST_GUILESS_MAIN(tst_AudioNoServer)
#include "tst_audionoserver.moc"
