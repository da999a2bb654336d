#include "pulseserver.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QStandardPaths>

#include <signal.h>

namespace {

const int patienceMs = 20000;

} // namespace

PulseServer::PulseServer() : directory(QStringLiteral("/tmp/zev-pulse-XXXXXX")) {}

PulseServer::~PulseServer()
{
    kill();
}

bool PulseServer::start(Sinks sinks)
{
    if (QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty())
        return false;
    const QByteArray folder = directory.path().toUtf8();
    for (const char *variable : {"HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "PULSE_RUNTIME_PATH"})
        qputenv(variable, folder);
    qputenv("PULSE_SERVER", "unix:" + folder + "/native");
    // No client starts a server on its own.
    QFile configuration(path(QStringLiteral("client.conf")));
    if (!configuration.open(QIODevice::WriteOnly) || configuration.write("autospawn = no\n") < 0)
        return false;
    configuration.close();
    qputenv("PULSE_CLIENTCONFIG", configuration.fileName().toUtf8());

    const QString sink = QStringLiteral("module-null-sink sink_name=%1 rate=%2 channels=%3");
    server.setProcessChannelMode(QProcess::MergedChannels);
    QStringList arguments{QStringLiteral("-n"),
                          QStringLiteral("--daemonize=no"),
                          QStringLiteral("--exit-idle-time=-1"),
                          QStringLiteral("--use-pid-file=no"),
                          QStringLiteral("-L"),
                          QStringLiteral("module-native-protocol-unix auth-anonymous=1 socket=") +
                              path(QStringLiteral("native")),
                          QStringLiteral("-L"),
                          sink.arg(QLatin1String("a")).arg(48000).arg(2)};
    if (sinks == Sinks::All)
        arguments << QStringLiteral("-L") << sink.arg(QLatin1String("b")).arg(44100).arg(2);
    arguments << QStringLiteral("-L") << sink.arg(QLatin1String("c")).arg(44100).arg(1);
    server.start(QStringLiteral("pulseaudio"), arguments);
    if (!server.waitForStarted(patienceMs))
        return false;
    QElapsedTimer waiting;
    waiting.start();
    while (!waiting.hasExpired(patienceMs) && server.state() == QProcess::Running) {
        if (control({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")}).count('\n') ==
            (sinks == Sinks::All ? 3 : 2))
            return true;
        server.waitForFinished(50);
    }
    return false;
}

void PulseServer::kill()
{
    if (server.state() == QProcess::NotRunning)
        return;
    server.kill();
    server.waitForFinished(patienceMs);
}

void PulseServer::freeze()
{
    ::kill(static_cast<pid_t>(server.processId()), SIGSTOP);
}

void PulseServer::thaw()
{
    ::kill(static_cast<pid_t>(server.processId()), SIGCONT);
}

QString PulseServer::control(const QStringList &arguments)
{
    QProcess pactl;
    pactl.start(QStringLiteral("pactl"), arguments);
    if (!pactl.waitForFinished(patienceMs) || pactl.exitCode() != 0)
        return {};
    return QString::fromUtf8(pactl.readAllStandardOutput());
}

bool PulseServer::removeSink(const QString &name)
{
    const QString modules =
        control({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("modules")});
    const QRegularExpression line(QStringLiteral("^(\\d+)\tmodule-null-sink\tsink_name=%1 ").arg(name),
                                  QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(modules);
    if (!match.hasMatch())
        return false;
    control({QStringLiteral("unload-module"), match.captured(1)});
    return !control({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")})
                .contains(QStringLiteral("\t%1\t").arg(name));
}

bool PulseServer::addSink(const QString &name, int rate, int channels)
{
    return !control({QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                     QStringLiteral("sink_name=%1").arg(name), QStringLiteral("rate=%1").arg(rate),
                     QStringLiteral("channels=%1").arg(channels)})
                .isEmpty();
}

bool PulseServer::setDefaultSink(const QString &name)
{
    control({QStringLiteral("set-default-sink"), name});
    return control({QStringLiteral("info")}).contains(QStringLiteral("Default Sink: %1\n").arg(name));
}

SinkRecorder::~SinkRecorder()
{
    recorder.kill();
    recorder.waitForFinished(patienceMs);
}

bool SinkRecorder::start(const QString &sink, int rate, int channels)
{
    recorder.start(QStringLiteral("parec"),
                   {QStringLiteral("--device=%1.monitor").arg(sink), QStringLiteral("--format=s16le"),
                    QStringLiteral("--raw"), QStringLiteral("--latency-msec=20"),
                    QStringLiteral("--rate=%1").arg(rate), QStringLiteral("--channels=%1").arg(channels)});
    return recorder.waitForStarted(patienceMs) && recorder.waitForReadyRead(patienceMs);
}

const QByteArray &SinkRecorder::data()
{
    recorded += recorder.readAllStandardOutput();
    return recorded;
}
